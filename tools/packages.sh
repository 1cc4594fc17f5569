# Installs the Debian packages that are not there yet. Sourced by ./demo and ./check.
# usage: need PACKAGE...

# What the program is built with and stands on.
build_packages="g++ cmake ninja-build libedit-dev libreadstat-dev libminizip-dev
 zlib1g-dev libexpat1-dev libshp-dev nlohmann-json3-dev libboost-math-dev"

need() {
  missing=""
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
  done
  [ -z "$missing" ] && return 0
  echo "Installing:$missing"
  as_root=""
  if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || { echo "Please install:$missing (root or sudo is needed)" >&2; exit 1; }
    as_root="sudo"
  fi
  $as_root apt-get update -qq
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends $missing >/dev/null
}
