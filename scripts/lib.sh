# Shared by the scripts: where the project is, what a machine needs, how it is built.
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$project"

# Installs, where it can, the Debian packages among the arguments that are missing.
need() {
    local package missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" = "install ok installed" ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "These Debian packages are needed; install them and run this again: ${missing[*]}" >&2
            exit 1
        fi
        root=(sudo)
    fi
    echo "Installing: ${missing[*]}" >&2
    "${root[@]}" apt-get -qq update >&2
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}" \
        >/dev/null
}

build_packages=(cmake g++ ninja-build pkg-config libcli11-dev nlohmann-json3-dev libcpp-httplib-dev)
test_packages=(libgtest-dev libgmock-dev libbenchmark-dev clang clang-format libclang-rt-14-dev ccache ffmpeg python3)

# The browser of the tests, and what drives it; the versions are in package-lock.json.
need_browser() {
    need chromium
    command -v node >/dev/null || need nodejs
    command -v npm >/dev/null || need npm
    [ tests/browser/node_modules/.package-lock.json -nt tests/browser/package-lock.json ] && return
    npm ci --prefix tests/browser --no-audit --no-fund --silent >&2
}

# configure PRESET [cmake argument...]; quiet unless it fails.
configure() {
    local preset=$1 log
    shift
    mkdir -p build
    log=build/configure-$preset.log
    cmake --preset "$preset" "$@" >"$log" 2>&1 || { cat "$log" >&2; return 1; }
}

passed=0
failed=0

# step TEXT COMMAND...: one check that passes or fails.
step() {
    local text=$1 log
    shift
    log=build/${text//[^a-z]/-}.log
    mkdir -p build
    if "$@" >"$log" 2>&1; then
        echo "ok      $text"
        passed=$((passed + 1))
    else
        echo "FAILED  $text"
        tail -n 60 "$log"
        failed=$((failed + 1))
    fi
}
