#!/usr/bin/env bash
# Makes the Debian packages, has lintian read them, installs them by dpkg below a root of its own, and
# uses what is there. At the end an update comes, and all is removed again. contents/ has the files
# that belong into each package.
set -euo pipefail
# shellcheck source=test/install/hosts.sh
. "$(dirname "${BASH_SOURCE[0]}")/hosts.sh"

readonly scratch=$work/root
readonly conf=$scratch/opt/tarvo/qnm/conf

make_packages() {
  (umask 077 && quietly cpack --config "$build/CPackConfig.cmake" -B "$work/packages")
  library=("$work"/packages/libqnm1_*.deb)
  development=("$work"/packages/libqnm-dev_*.deb)
  tools=("$work"/packages/qnm-tools_*.deb)
  python=("$work"/packages/python3-qnm_*_all.deb)
  packages=("$work"/packages/*.deb)
  ((${#packages[@]} == 4)) || fail "made ${packages[*]}"
  quietly lintian --allow-root --fail-on error "${packages[@]}"
}

# check_contents PACKAGE: every file is one that belongs there, and all are there, in folders that are
# open to all.
check_contents() {
  local name file pattern
  ! dpkg-deb --contents "$1" | grep '^d' | grep -v '^drwxr-xr-x' || fail "$1 has closed folders"
  local -a patterns files
  name=$(dpkg-deb --field "$1" Package)
  mapfile -t patterns < <(sed "/^#/d; s#LIBDIR#$libdir#" "$source/test/install/contents/$name")
  mapfile -t files < <(dpkg-deb --fsys-tarfile "$1" | tar --list | sed -n 's#^\./\(.*[^/]\)$#\1#p')
  for file in "${files[@]}"; do
    for pattern in "${patterns[@]}"; do
      # shellcheck disable=SC2053 # it is a pattern
      [[ $file == $pattern ]] && continue 2
    done
    fail "$name has $file, which test/install/contents/$name does not"
  done
  for pattern in "${patterns[@]}"; do
    for file in "${files[@]}"; do
      # shellcheck disable=SC2053
      [[ $file == $pattern ]] && continue 2
    done
    fail "$name lacks $pattern"
  done
}

# expect_field PACKAGE FIELD REGEX
expect_field() {
  local value
  value=$(dpkg-deb --field "$1" "$2")
  [[ $value =~ $3 ]] || fail "${1##*/} has $2: $value"
}

check_fields() {
  local package
  expect_field "${library[0]}" Depends 'libc6 .*liblog4cxx.*libpcap0\.8.*libstdc\+\+6'
  expect_field "${development[0]}" Depends '^libqnm1 \(= [0-9.]+-[0-9]+\)$'
  expect_field "${tools[0]}" Depends 'libqnm1 \(>= [0-9.]+-[0-9]+\), .*libstdc\+\+6'
  expect_field "${python[0]}" Depends '^libqnm1 \(>= [0-9.]+-[0-9]+\), python3 \(>= 3\.11\)$'
  dpkg-deb --info "${library[0]}" triggers >"$work/said"
  grep -qx 'activate-noawait ldconfig' "$work/said" ||
    fail "nothing renews the linker's cache"
  dpkg-deb --info "${library[0]}" shlibs >"$work/said"
  grep -qE '^libqnm 1 libqnm1 \(>= [0-9.]+-[0-9]+\)$' "$work/said" ||
    fail "programs that link the library would not depend on its package"
  for package in "${packages[@]}"; do
    dpkg-deb --fsys-tarfile "$package" | tar --extract --to-stdout >"$work/content"
    ! grep -qaF "$source" "$work/content" || fail "${package##*/} tells where it was built"
  done
}

# Only the Python module has something to do beyond its files: it is compiled.
check_scripts() {
  local package scripts expected
  for package in "${packages[@]}"; do
    expected=
    [[ $package == "${python[0]}" ]] && expected='postinst prerm '
    scripts=$(dpkg-deb --ctrl-tarfile "$package" | tar --list |
      sed -nE 's#^\./(preinst|postinst|prerm|postrm|config)$#\1#p' | sort | tr '\n' ' ')
    [[ $scripts == "$expected" ]] || fail "${package##*/} has scripts: $scripts"
  done
}

# What dpkg has to know of the system around: the packages that these depend on, as they are here.
make_root() {
  local -a wanted
  local name
  mkdir -p "$scratch"/var/lib/dpkg/{info,updates}
  mapfile -t wanted < <(for name in "${packages[@]}"; do dpkg-deb --field "$name" Depends; done |
    tr ',|' '\n' | sed 's/^ *//; s/ .*//' | grep -v '^libqnm1$' | sort -u)
  quietly dpkg --status "${wanted[@]}"
  cp "$work/said" "$scratch/var/lib/dpkg/status"
  dpkg-query --show --showformat='${binary:Package}\n' "${wanted[@]}" |
    while read -r name; do touch "$scratch/var/lib/dpkg/info/$name.list"; done
}

in_root() {
  quietly dpkg "--root=$scratch" --force-script-chrootless --force-unsafe-io --force-confold \
    "$@" </dev/null
}

# The same package a revision later, with other samples.
make_update() {
  local unpacked=$work/unpacked
  dpkg-deb --raw-extract "${library[0]}" "$unpacked"
  sed -i 's/^Version: .*/&.1/' "$unpacked/DEBIAN/control"
  for name in qnm.conf qnm_log4c.properties; do
    echo '# of the update' >>"$unpacked/opt/tarvo/qnm/conf/$name"
  done
  quietly dpkg-deb --root-owner-group --build "$unpacked" "$work/update.deb"
}

# The operator's file is kept and the new sample laid beside it; the untouched one is brought up to
# date.
check_update() {
  make_update
  echo 'log_level = 4' >>"$conf/qnm.conf"
  cp "$conf/qnm.conf" "$work/edited"
  # The other package asks for the very revision that the update replaces.
  in_root --remove libqnm-dev
  in_root --install "$work/update.deb"
  expect_same "$conf/qnm.conf" "$work/edited"
  expect_same "$conf/qnm.conf.dpkg-dist" "$work/unpacked/opt/tarvo/qnm/conf/qnm.conf"
  expect_same "$conf/qnm_log4c.properties" \
    "$work/unpacked/opt/tarvo/qnm/conf/qnm_log4c.properties"
}

check_removal() {
  in_root --remove libqnm1 qnm-tools python3-qnm
  expect_same "$conf/qnm.conf" "$work/edited"
  in_root --purge libqnm1
  local left
  left=$(find "$scratch" -path "$scratch/var" -prune -o ! -type d -print)
  [[ -z $left ]] || fail "left behind: $left"
}

main() {
  need cpack dpkg dpkg-deb dpkg-shlibdeps file gzip lintian pkg-config cmake ninja
  make_packages
  for package in "${packages[@]}"; do
    check_contents "$package"
  done
  check_fields
  check_scripts
  make_root
  in_root --install "${packages[@]}"
  use_installation "$scratch"
  check_update
  check_removal
  echo "passed"
}

main
