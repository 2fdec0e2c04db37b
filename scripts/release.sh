#!/usr/bin/env bash
# Makes a release that running copies of Tallowind offer and install: builds the program with VERSION,
# installs it as DIR/Tallowind.app, zips that bundle as DIR/Tallowind-VERSION.zip and writes DIR/latest.json
# with the version, the zip's address relative to the server and its SHA-256 digest. Serve DIR with
# `tallowind-server --releases DIR`.
#
#   scripts/release.sh 1.4.2 /srv/tallowind/releases
#   scripts/release.sh 1.4.2 DIR -DTALLOWIND_SERVER_URL=https://tallowind.example.org   (more CMake settings)
#
# NOTES=text, when set, becomes the release notes shown in the update offer.
set -euo pipefail

if [ $# -lt 2 ]; then
    echo "usage: scripts/release.sh VERSION DIR [CMAKE-SETTING...]" >&2
    exit 2
fi
version=$1
dir=$2
shift 2
if ! [[ $version =~ ^[0-9]+(\.[0-9]+)*$ ]]; then
    echo "error: VERSION must be dotted decimal numbers, like 1.4.2" >&2
    exit 2
fi

cd "$(dirname "$0")/.."
scripts/install-deps.sh
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
build=build-release
cmake -S . -B "$build" -G Ninja "${launcher[@]}" -DCMAKE_BUILD_TYPE=Release \
    -DTALLOWIND_BUILD_TESTS=OFF -DTALLOWIND_BUILD_BENCHMARKS=OFF -DTALLOWIND_APP_VERSION="$version" "$@"
cmake --build "$build" -j2 --target tallowind

bundle=$dir/Tallowind.app
zip=Tallowind-$version.zip
rm -rf "$bundle" "${dir:?}/$zip"
cmake --install "$build" --prefix "$bundle" --strip
# -y keeps symbolic links as links, as the program unpacks them.
(cd "$dir" && zip -qry "$zip" Tallowind.app)
digest=$(sha256sum "$dir/$zip" | cut -d' ' -f1)

# The manifest is written beside and then renamed, so a check never reads half of it.
VERSION=$version ZIP=releases/$zip DIGEST=$digest python3 - >"$dir/latest.json.new" <<'EOF'
import json, os
manifest = {"version": os.environ["VERSION"], "zip": os.environ["ZIP"], "sha256": os.environ["DIGEST"]}
if os.environ.get("NOTES"):
    manifest["notes"] = os.environ["NOTES"]
print(json.dumps(manifest, indent=2))
EOF
mv "$dir/latest.json.new" "$dir/latest.json"
echo "Tallowind $version: $dir/$zip and $dir/latest.json"
