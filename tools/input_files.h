// Files the tool reads from its users: key files, allow-lists, filter files. Every one is read
// with a bounded line length and total size, so that a wrong path (a directory, /dev/zero, a
// capture) fails at once with a message naming the file instead of filling memory.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "zmq_api.h"

namespace quelm_tool {

struct LineLimits {
    size_t max_line = 4096;          // bytes per line, line end excluded
    size_t max_total = 1024 * 1024;  // bytes in the whole file
};

// The lines of a text file, line ends removed. kExitOk, or kExitNoInput (cannot be opened, a
// directory) or kExitDataError (a line or the file over the limits, a NUL byte), with a message
// that names the file. Stops reading at the first line over the limit.
int read_lines(const std::string &path, const LineLimits &limits, std::vector<std::string> *lines,
               std::string *error);

// The same, handing each line to `take` as it is read instead of keeping them all.
int for_each_line(const std::string &path, const LineLimits &limits,
                  const std::function<void(std::string &line)> &take, std::string *error);

// kExitOk, or kExitNoInput with a message when `path` is a directory: for the files the tool hands
// to the libraries by name.
int refuse_directory(const std::string &path, std::string *error);

// Which half of a CURVE key pair a file must hold.
enum class KeyHalf { kPublic, kSecret };

// The key of a file `quelm keygen` wrote (comment lines, then the key: a public key alone on its
// line, a secret key as "secret-key KEY"). kExitOk; kExitNoInput when it cannot be opened or is
// a directory; kExitDataError when it is empty, holds no 40-character Z85 key, or holds the
// other half of the pair than `want`. The message names the file and says what to give instead.
int read_key_file(const ZmqApi &zmq, const std::string &path, KeyHalf want, std::string *key,
                  std::string *error);

// True (with a warning text) when a secret key file may be read by group or others.
bool secret_key_exposed(const std::string &path, std::string *warning);

}  // namespace quelm_tool
