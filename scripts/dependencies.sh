# Sourced by the two commands of the README: installs the Debian packages a
# step needs when any is missing. As root it runs `apt-get update` and then
# `apt-get install`; otherwise it names the packages and stops.
#
#   need_packages PACKAGE...

need_packages() {
  local missing=()
  local package
  for package in "$@"; do
    dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "Missing Debian packages: ${missing[*]}" >&2
    echo "Install them (sudo apt-get install ${missing[*]}) or run this command as root." >&2
    exit 1
  fi
  echo "Installing ${missing[*]} (apt-get update, then apt-get install)..."
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
}

# What configuring the tree and building the daemon and its client need (the
# tree's configuration looks for the test and benchmark libraries too).
BUILD_PACKAGES=(cmake ninja-build g++ make pkg-config zlib1g-dev libgtest-dev
  libgmock-dev libbenchmark-dev)
# What running the tests needs besides.
TEST_PACKAGES=(procps iproute2 python3 valgrind util-linux gzip systemd mandoc)
# What the fuzzing step of the test command needs: clang, and the runtime
# libraries of libFuzzer and the sanitizers for it (libclang_rt.fuzzer*.a).
FUZZ_PACKAGES=(clang libclang-rt-14-dev)
