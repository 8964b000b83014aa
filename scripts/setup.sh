# Installs what is missing on this machine. Sourced by demo, check and the benchmarks.

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# Packages by their Debian names, for building and running.
build_packages="g++ cmake ninja-build libssl-dev libcli11-dev nlohmann-json3-dev libsystemd-dev gettext"
card_packages="softhsm2 openssl opensc"
test_packages="libgtest-dev libgmock-dev libp11-kit-dev clang dbus libc-l10n python3 python3-jsonschema libgnustep-base-dev"

# For tests of real readers, where they are offered. The driver of virtual readers is unpacked and not installed: the
# machine's own service would offer its readers, and take cards for them from the network.
reader_packages="pcscd"
unpacked_packages="vsmartcard-vpcd"
# For tests of what shells complete, where they are offered.
shell_packages="zsh fish"

# The one version of clang-format and clang-tidy that counts: each other wants other lines and finds other things.
checking_version=14

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

# newest_clang: prints the version of the newest clang that is installed as a package; nothing when there is none.
newest_clang() {
  dpkg-query -W -f='${db:Status-Status} ${Package}\n' 'clang-[0-9]*' 2>/dev/null |
    sed -n 's/^installed clang-\([0-9][0-9]*\)$/\1/p' | sort -n | tail -n 1
}

# clang_packages <version>: prints what belongs to that clang: the sanitizers, and the tools and the linker that build
# for macOS.
clang_packages() { say "libclang-rt-$1-dev llvm-$1 lld-$1"; }

# install_offered <Debian packages>...: those that this system's package sources have; the others are passed over.
install_offered() {
  command -v apt-cache >/dev/null || return 0
  offered=""
  for package in "$@"; do
    case "$(apt-cache policy "$package" 2>/dev/null)" in
      *"Candidate: (none)"*|"") ;;
      *) offered="$offered $package" ;;
    esac
  done
  install_missing $offered
}

# unpack_offered <folder> <Debian packages>...: those that are neither installed nor below the folder yet, and that this
# system's package sources have, each into a folder of its name. Nothing on the system changes.
unpack_offered() {
  into=$1; shift
  command -v apt-cache >/dev/null || return 0
  for package in "$@"; do
    [ ! -d "$into/$package" ] || continue
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" != installed ] || continue
    case "$(apt-cache policy "$package" 2>/dev/null)" in *"Candidate: (none)"*|"") continue ;; esac
    say "Unpacking into $into: $package"
    fetched=$(mktemp -d)
    if ! { (cd "$fetched" && apt-get download "$package") && mkdir -p "$into" &&
           dpkg-deb -x "$fetched/${package}"_*.deb "$fetched/unpacked" && mv "$fetched/unpacked" "$into/$package"; } >/dev/null 2>&1; then
      say "$package could not be had"
    fi
    rm -rf "$fetched"
  done
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
