# shellcheck shell=bash disable=SC2034  # the lists are for those who source this
# Debian packages that building and testing need, and how the scripts get them. Sourced, not run.

BUILD_PACKAGES=(cmake g++ libgcrypt20-dev libpcap-dev libzstd-dev make pkg-config zlib1g-dev)
# What the metrics plugin takes besides.
METRICS_PACKAGES=(libjs-dygraphs libmicrohttpd-dev nlohmann-json3-dev prometheus-cpp-dev)
# What the kafka plugin takes besides.
KAFKA_PACKAGES=(librdkafka-dev nlohmann-json3-dev)
TEST_PACKAGES=(ccache chromium chromium-driver clang-format clang-tidy dpkg-dev file iproute2
    libbenchmark-dev libfixbuf-tools libgtest-dev lintian man-db mandoc netbase nfdump ninja-build
    pmacct prometheus python3 python3-selenium systemd tshark zsh zstd)

# Words that run a command as root: none for root, else sudo. (Not a function: a function started in
# the background would be a shell of its own between the script and the program that it signals.)
AS_ROOT=()
((EUID == 0)) || AS_ROOT=(sudo)

require_root_access() {
    ((EUID == 0)) || command -v sudo >/dev/null || {
        echo "error: this needs root: run it as root, or install sudo" >&2
        return 1
    }
}

missing_packages() {
    local package
    for package in "$@"; do
        # shellcheck disable=SC2016  # the format is dpkg's, not the shell's
        [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            echo "$package"
    done
}

# Installs what is missing of the named packages, and says nothing when nothing is.
install_packages() {
    local missing log
    command -v dpkg-query >/dev/null || {
        echo "error: packages are installed with apt-get, as on Debian 12; elsewhere install" \
            "these by hand: $*" >&2
        return 1
    }
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]})) || return 0
    echo "==> Installing ${missing[*]}"
    require_root_access || return
    log=$(mktemp -t kestrel-packages.XXXXXX)
    {
        "${AS_ROOT[@]}" apt-get -qq update &&
            "${AS_ROOT[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -y \
                --no-install-recommends -o Dpkg::Use-Pty=0 install "${missing[@]}"
    } >"$log" 2>&1 </dev/null || {
        tail -n 20 "$log" >&2
        echo "error: apt-get failed (its words: $log)" >&2
        return 1
    }
    rm -f "$log"
}
