# Sourced by the other scripts: installs Debian packages that are missing, and builds.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

build_packages=(g++ cmake ninja-build)
tool_packages=(libcli11-dev libncurses-dev nlohmann-json3-dev libssl-dev)
# duktape: a small script engine, for a script of the report page.
test_packages=(libgtest-dev libbenchmark-dev libssl-dev libleveldb-dev librocksdb-dev
  libisal-dev openssl stunnel4 duktape)
check_packages=(clang clang-format clang-tidy libclang-rt-14-dev)
# llvm: its symbolizer, which names the lines of a crash.
fuzz_packages=(clang libclang-rt-14-dev llvm)
# For cpack; see docs/operations.md.
package_packages=(dpkg-dev file)
# For scripts/try-package: a virtual machine.
vm_packages=(qemu-system-x86 debootstrap fakeroot busybox-static cpio e2fsprogs openssh-client)
# For scripts/check-packaging; prometheus, which has promtool, is large.
packaging_packages=(prometheus python3 shellcheck systemd)

install_missing() {
  local package missing=()
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "installing ${missing[*]}" >&2
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get update -q >&2
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -qy --no-install-recommends "${missing[@]}" >&2
}

# configure_and_build PRESET [--target TARGET]
configure_and_build() {
  local preset=$1
  shift
  cmake --preset "$preset" >&2
  cmake --build --preset "$preset" "$@" >&2
}
