#!/bin/sh
# Regenerates the device database from the models list into OUT and compares it with the shipped
# file, byte for byte. Usage: regenerate-database.sh PYTHON SOURCE_DIR OUT
set -eu
python=$1
source_dir=$2
out=$3
"$python" "$source_dir/scripts/generate-device-database.py" \
    "$source_dir/scripts/device-models.tsv" "$out" >/dev/null
if cmp -s "$out" "$source_dir/CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist"; then
    echo "1 passed, 0 failed"
else
    echo "DeviceDatabase.plist differs from what scripts/device-models.tsv generates:" >&2
    diff "$source_dir/CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist" "$out" | head -40 >&2
    echo "0 passed, 1 failed"
    exit 1
fi
