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

# ThreadSanitizer needs addresses less random than some kernels make them; some
# containers forbid asking for that. Empty, or the command to run programs by.
fixed_addresses=()
if setarch --addr-no-randomize true 2>/dev/null; then
  fixed_addresses=(setarch --addr-no-randomize)
fi
