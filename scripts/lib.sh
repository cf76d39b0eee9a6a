# shellcheck shell=bash
# What the scripts share. To be sourced from a script in this folder:
#   source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
# Gives: $root (the repository; also the working directory), say, die, install_packages, cores,
# build_dir, configure_preset, build_preset, make_packages.

set -euo pipefail
shopt -s inherit_errexit

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"

# The service refuses to know a client by a program that others may write.
umask 022

# Tells a person what is being done. Standard output stays for results.
say() { printf '\033[1m==>\033[0m %s\n' "$*" >&2; }
die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# The clone may be another user's than the one who tests it.
export GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=safe.directory GIT_CONFIG_VALUE_0="$root"

# Dies unless git knows the repository's files: a check that looks at none of them would pass.
need_tracked_files() {
  git ls-files --error-unmatch -- scripts/lib.sh >/dev/null 2>&1 ||
    die "needs git, and a clone of the repository: it looks at the files that git knows"
}

# install_packages PURPOSE...: installs what scripts/packages lists for these purposes and is missing.
# Asks apt for nothing, not even for its lists, when everything is there.
install_packages() {
  command -v dpkg-query >/dev/null ||
    die "needs the libraries that scripts/packages lists, and knows how to install them only on Debian"
  local purposes wanted missing=() name
  purposes=$(IFS='|'; printf '%s' "$*")
  # A line that states no purpose is wanted for all.
  wanted=$(awk -v purposes="^($purposes):\$" \
    '!/^#/ && NF { if ($3 !~ /^(build|run|check|package):$/ || $3 ~ purposes) print $1 }' scripts/packages)
  for name in $wanted; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null) == installed ]] ||
      missing+=("$name")
  done
  [[ ${#missing[@]} -gt 0 ]] || return 0

  local as_root=()
  if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null ||
      die "missing packages, and no sudo to install them with; as root: apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  say "Installing ${missing[*]}${as_root:+ (through sudo)}"
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
  "${apt[@]}" update >&2
  "${apt[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null >&2
}

# How many compilers to run at once: one a processor, but each may want 1.5 GB.
cores() {
  local processors memory
  processors=$(nproc)
  memory=$(awk '/^MemAvailable:/ { print int($2 / 1572864) }' /proc/meminfo)
  ((memory >= 1)) || memory=1
  echo $((processors < memory ? processors : memory))
}

build_dir() { echo "$root/build/$1"; }

# Lets clones and worktrees share what they have compiled.
export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=time_macros

# Runs a command with its output in a log file; shows the log's end when it fails.
_logged() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 || {
    local status=$?
    tail -n 80 "$log" >&2
    printf 'The whole log: %s\n' "$log" >&2
    return $status
  }
}

configure_preset() {
  mkdir -p "$(build_dir "$1")"
  _logged "$(build_dir "$1")/configure.log" cmake --preset "$1"
}

# build_preset PRESET [TARGET...]: configures and builds, all of it or these targets.
build_preset() {
  local preset=$1 started=$SECONDS
  shift
  say "Building $preset${*:+: $*}"
  configure_preset "$preset" || return
  local ninja=(cmake --build --preset "$preset" --parallel "$(cores)" ${1+--target "$@"})
  if [[ -t 2 ]]; then
    "${ninja[@]}" >&2 || return
  else
    # Keeps going, so that one run shows all that is wrong.
    _logged "$(build_dir "$preset")/build.log" "${ninja[@]}" -- -k 0 || return
  fi
  say "Built $preset in $((SECONDS - started)) s"
}

# make_packages: builds a release and makes its Debian packages.
make_packages() {
  install_packages build package
  build_preset release
  local build
  build=$(build_dir release)
  say "Making the packages"
  rm -rf "$build/packages"
  (cd "$build" && cpack -G DEB >packages.log 2>&1) || die "cpack failed: $(tail -n 20 "$build/packages.log")"
}
