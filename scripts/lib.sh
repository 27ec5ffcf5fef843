# Shared by the scripts beside it, which source it first: enters the root of
# the source tree and provides a few small helpers.

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Announces what happens next.
step() { printf '==> %s\n' "$*"; }

# Ends the script with one sentence on what is missing and how to get it.
fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Configures and builds a preset: build PRESET [cmake --build arguments...].
build() {
  local preset=$1
  shift
  step "building preset $preset in build/$preset"
  cmake --preset "$preset"
  cmake --build --preset "$preset" "$@"
}

# Makes the virtual environment $1 with exactly the packages that the
# requirements file $2 pins by hash. The stamp is written last, so that an
# interrupted run is repeated from its beginning.
install_python_tools() {
  local venv=$1 requirements=$2 stamp
  stamp=$(/usr/bin/python3 --version; sha256sum "$requirements")
  [[ $(cat "$venv/.stamp" 2>/dev/null) != "$stamp" ]] || return 0
  step "installing Python packages of $requirements into ${venv#"$PWD"/}"
  rm -rf "$venv"
  mkdir -p "$(dirname "$venv")"
  /usr/bin/python3 -m venv "$venv" ||
    fail "could not make a Python environment: apt-get install python3-venv"
  "$venv/bin/pip" install --quiet --disable-pip-version-check \
    --require-hashes --only-binary=:all: --requirement "$requirements" ||
    fail "could not install the Python packages of $requirements:" \
      "connect this machine to a Python package index and try again"
  printf '%s\n' "$stamp" >"$venv/.stamp"
}

# ThreadSanitizer needs addresses less random than some kernels make them; some
# containers forbid asking for that. Empty, or the command to run programs by.
fixed_addresses=()
if setarch --addr-no-randomize true 2>/dev/null; then
  fixed_addresses=(setarch --addr-no-randomize)
fi
