# shellcheck shell=bash
# What the second group of tests runs against and Debian does not have: a Kafka broker, goflow2 and
# ClickHouse as a Python module. Each comes once, by the client of its registry as the machine has
# it set up, into build/pipelines. Sourced, not run; after packages.sh.

readonly PIPELINES=$PWD/build/pipelines
readonly GO_VERSION=1.24.11 GOFLOW2_VERSION=v2.2.6 CHDB_VERSION=3.4.1

fetch_pipelines() {
    mkdir -p "$PIPELINES"
    fetch_kafka
    fetch_goflow2
    fetch_chdb
}

# fetch WHAT COMMAND...: runs the command, which fills the folder WHAT, unless it has succeeded
# before with these words.
fetch() {
    local folder=$PIPELINES/$1 log=$PIPELINES/$1.log mark=$PIPELINES/$1.fetched
    local what=$1
    shift
    [[ -f $mark && $(<"$mark") == "$*" ]] && return
    echo "==> Fetching $what (log: ${log#"$PWD/"})"
    rm -rf "$folder" "$mark"
    "$@" >"$log" 2>&1 </dev/null || {
        tail -n 20 "$log" >&2
        echo "error: $what cannot be fetched" >&2
        return 1
    }
    echo "$*" >"$mark"
}

# need COMMAND PACKAGE: the package only where nothing else brings the command.
need() {
    command -v "$1" >/dev/null || install_packages "$2"
}

fetch_kafka() {
    need java default-jre-headless
    need mvn maven
    # The list is among the words, so that another one is fetched anew.
    fetch kafka env "LIST=$(cksum <tests/pipelines/pom.xml)" mvn --batch-mode \
        --file tests/pipelines/pom.xml dependency:copy-dependencies \
        "-DoutputDirectory=$PIPELINES/kafka"
}

# goflow2 asks for a newer Go than Debian's, which the Go project has as a module.
fetch_go() {
    need go golang-go
    # shellcheck disable=SC2016  # words of the inner shell
    fetch go sh -c 'go mod download "golang.org/toolchain@$1" &&
        cp -R "$(go env GOMODCACHE)/golang.org/toolchain@$1" "$0" &&
        chmod -R u+w "$0" && chmod +x "$0"/bin/* "$0"/pkg/tool/*/*' \
        "$PIPELINES/go" "v0.0.1-go$GO_VERSION.linux-amd64"
}

# Beside the program, what it comes with for ClickHouse.
fetch_goflow2() {
    fetch_go
    # shellcheck disable=SC2016  # words of the inner shell
    fetch goflow2 env "GOBIN=$PIPELINES/goflow2" CGO_ENABLED=0 GOTOOLCHAIN=local \
        sh -c '"$0" install "$1/cmd/goflow2@$2" &&
            cp -R "$("$0" env GOMODCACHE)/$1@$2/compose/kcg" "$GOBIN/example"' \
        "$PIPELINES/go/bin/go" github.com/netsampler/goflow2/v2 "$GOFLOW2_VERSION"
}

fetch_chdb() {
    install_packages python3-venv
    # shellcheck disable=SC2016  # words of the inner shell
    fetch python sh -c 'python3 -m venv "$0" && "$0/bin/pip" install "$1"' "$PIPELINES/python" \
        "chdb==$CHDB_VERSION"
}
