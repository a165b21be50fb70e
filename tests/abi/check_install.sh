#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a consumer through find_package (shared and
# static) and a plain C program through pkg-config, and runs them.
set -euo pipefail
build=$1 consumer=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
export LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib64:${LD_LIBRARY_PATH:-}"
"$work/build/consumer_shared"
"$work/build/consumer_static"
pc_dir=$(dirname "$(find "$work/prefix" -name quelm.pc | head -1)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --define-variable=prefix="$work/prefix" --cflags --libs quelm)
cc -std=c11 -Wall -Werror "$consumer/consumer.c" $flags -o "$work/consumer_pc"
"$work/consumer_pc"
echo "installed package usable through find_package and pkg-config"
