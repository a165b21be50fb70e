#!/usr/bin/python3
"""validate_records.py SCHEMA FILE...: every flow record of the files (one JSON object a line; the
collector's statistics records are skipped) against the schema. Exit 1 on the first file holding
an invalid record or none at all."""
import json
import sys

import jsonschema

schema = json.load(open(sys.argv[1], encoding="utf-8"))
validator = jsonschema.Draft202012Validator(schema, format_checker=jsonschema.FormatChecker())
for path in sys.argv[2:]:
    records = [json.loads(line) for line in open(path, encoding="utf-8")]
    flows = [r for r in records if r.get("event_type") != "stats"]
    errors = [f"{path}:{records.index(r) + 1}: {e.json_path}: {e.message}"
              for r in flows for e in validator.iter_errors(r)]
    if errors or not flows:
        sys.exit("\n".join(errors) or f"{path}: no flow record")
print(f"{len(sys.argv) - 2} files valid")
