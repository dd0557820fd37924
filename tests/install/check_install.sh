#!/usr/bin/env bash
# Installs a build into a staging prefix and uses it as a client would (find_package, pkg-config).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
stage="$build/stage"
rm -rf "$stage" "$build/consumer"
cmake --install "$build" --prefix "$stage" >/dev/null

lib="$stage/lib/libappliance_storage.so"
[ "$(readlink "$lib")" = "libappliance_storage.so.18" ] || { echo "SONAME link missing"; exit 1; }
exports=$(nm -D --defined-only "$lib")  # besides what the consumer links to
for sym in MsgFileName REG_LINUX_DIR REG_MAC_DIR LIBRARY_MAC_DIR DefaultTextsBase TextsFromMessageFileBase; do
  grep -q "$sym" <<<"$exports" || { echo "not exported: $sym"; exit 1; }
done
# The error nodes, message tables and standard-library instances stay inside.
if c++filt <<<"$exports" | grep -E "ErrorImpl|ErrorAccess|Common::Detail|LinuxEx::Detail| [A-Za-z] std::"; then
  echo "internal names leak from the shared library"; exit 1
fi

cmake -S "$here/consumer" -B "$build/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$build/consumer" >/dev/null
LD_LIBRARY_PATH="$stage/lib" "$build/consumer/consumer" | tee "$build/consumer/out.txt"
grep -q "18.0.38811" "$build/consumer/out.txt"

flags=$(PKG_CONFIG_PATH="$stage/lib/pkgconfig" pkg-config --cflags --libs appliance_storage)
# shellcheck disable=SC2086
c++ -std=c++17 "$here/consumer/consumer.cpp" $flags -o "$build/consumer/consumer_pc"
LD_LIBRARY_PATH="$stage/lib" "$build/consumer/consumer_pc" >/dev/null
# The administrators' tool runs from where it is installed and brings its manual page.
"$stage/sbin/storagectl" version | grep -q "18.0.38811" || { echo "installed storagectl does not run"; exit 1; }
grep -q "^\.TH STORAGECTL 8" "$stage/share/man/man8/storagectl.8" || { echo "storagectl.8 not installed"; exit 1; }
[ -f "$stage/share/bash-completion/completions/storagectl" ] || { echo "storagectl's completion not installed"; exit 1; }
# The Python module imports from where it is installed, in Debian's own Python.
PYTHONPATH="$stage/lib/python3/dist-packages" /usr/bin/python3 -c "import appliance_storage" ||
  { echo "installed Python module does not import"; exit 1; }
echo "installed package works through find_package and pkg-config"
