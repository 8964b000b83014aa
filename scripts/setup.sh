# Installs what is missing on this machine. Sourced by demo, check and the benchmarks.

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# Packages by their Debian names, for building and running.
build_packages="g++ cmake ninja-build libssl-dev libcli11-dev nlohmann-json3-dev libsystemd-dev gettext"
card_packages="softhsm2 openssl opensc"
test_packages="libgtest-dev libgmock-dev libp11-kit-dev clang clang-format clang-tidy libclang-rt-14-dev llvm-14 dbus python3 lld libgnustep-base-dev"

# The same on macOS, for Homebrew.
brew_packages="cmake ninja gettext openssl@3 cli11 nlohmann-json softhsm opensc googletest p11-kit"

# install_missing <Debian packages>...
install_missing() {
  case "$(uname -s)" in
    Darwin)
      command -v brew >/dev/null || die "Homebrew is missing; install it from its home page, then run this again"
      for package in $brew_packages; do
        brew list --formula "$package" >/dev/null 2>&1 || { say "Installing $package with Homebrew ..."; brew install --quiet "$package"; }
      done
      return ;;
  esac
  missing=""
  for package in "$@"; do
    case "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" in
      installed) ;;
      *) missing="$missing $package" ;;
    esac
  done
  [ -z "$missing" ] && return
  command -v apt-get >/dev/null || die "these Debian packages are needed:$missing"
  as_root=""
  if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || die "as root, run: apt-get install$missing"
    as_root=sudo
  fi
  say "Installing with apt-get:$missing"
  log=$(mktemp)
  if ! { $as_root apt-get update && $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing; } >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    rm -f "$log"
    die "apt-get could not install$missing"
  fi
  rm -f "$log"
}

# softhsm_module: prints the path of SoftHSM2's module.
softhsm_module() {
  for candidate in /usr/lib/softhsm/libsofthsm2.so /usr/lib/*/softhsm/libsofthsm2.so \
                   /opt/homebrew/lib/softhsm/libsofthsm2.so /usr/local/lib/softhsm/libsofthsm2.so; do
    [ -e "$candidate" ] && { printf '%s\n' "$candidate"; return; }
  done
  die "SoftHSM2's module libsofthsm2.so is not where Debian and Homebrew put it"
}

# build_quietly <preset> [<cmake options>...]: configures and builds; shows the output only on failure.
build_quietly() {
  preset=$1; shift
  log=$(mktemp)
  if ! { cmake --preset "$preset" "$@" && cmake --build --preset "$preset"; } >"$log" 2>&1; then
    grep -E 'error|warning|FAILED|missing' -A 5 "$log" | head -n 60 >&2 || tail -n 40 "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
