#!/usr/bin/env bash
# Installs into a folder, component by component and as a whole, and uses what is there.
set -euo pipefail
# shellcheck source=test/install/hosts.sh
. "$(dirname "${BASH_SOURCE[0]}")/hosts.sh"

# Prints the files below a folder, a line each.
list_files() {
  (cd "$1" && find . ! -type d | sort)
}

# install_into FOLDER [OPTION...]
install_into() {
  local folder=$1
  shift
  DESTDIR=$folder quietly cmake --install "$build" --prefix /usr "$@"
}

# expect_in COMPONENT FILE...: it is in this component and in none other.
expect_in() {
  local component=$1 other file
  shift
  for other in "${components[@]}"; do
    for file in "$@"; do
      if [[ $other == "$component" ]]; then
        [[ -e $work/$other/$file || -L $work/$other/$file ]] || fail "component $component lacks $file"
      else
        [[ ! -e $work/$other/$file ]] || fail "component $other has $file"
      fi
    done
  done
}

# Whoever takes all components has the whole, and nothing is in two of them.
check_components() {
  local component
  for component in "${components[@]}"; do
    install_into "$work/$component" --component "$component"
    list_files "$work/$component" >>"$work/parts"
  done
  list_files "$work/whole" >"$work/whole.list"
  diff <(sort "$work/parts") "$work/whole.list" ||
    fail "the components are not the whole (first: components, second: the whole)"

  expect_in runtime "usr/$libdir/libqnm.so.1" usr/share/qnm/conf/qnm.conf \
    opt/tarvo/qnm/conf/qnm.conf opt/tarvo/qnm/conf/qnm_log4c.properties
  expect_in devel usr/include/qnm.h "usr/$libdir/libqnm.so" "usr/$libdir/pkgconfig/qnm.pc" \
    "usr/$libdir/cmake/qnm/qnm-config.cmake" "usr/$libdir/cmake/qnm/qnm-config-version.cmake"
  expect_in tools usr/bin/qnmctl usr/bin/qnm-cardsim usr/share/qnm/scenarios/demo.toml
  expect_in doc usr/share/doc/qnm/README.md usr/share/doc/qnm/docs/examples/host.c
}

# Below another prefix, also one with a blank, everything but the configuration moves with it, and is
# found there.
check_prefix() {
  local strayed flags
  DESTDIR=$work/moved quietly cmake --install "$build" --prefix '/srv/my qnm'
  strayed=$(list_files "$work/moved" | grep -v -e '^\./srv/my qnm/' -e '^\./opt/tarvo/qnm/conf/') &&
    fail "outside of the prefix: $strayed"
  flags=$(PKG_CONFIG_LIBDIR="$work/moved/srv/my qnm/$libdir/pkgconfig" pkg-config --cflags --libs qnm)
  [[ $flags =~ ^"-I/srv/my\\ qnm/include -L/srv/my\\ qnm/$libdir -lqnm"\ ?$ ]] ||
    fail "below another prefix, pkg-config says: $flags"
}

# Programs are not tied to the place that they were built in.
check_binaries() {
  local file
  for file in "$work/whole/usr/$libdir/libqnm.so.1" "$work"/whole/usr/bin/*; do
    ! readelf --dynamic "$file" | grep -E '\((RPATH|RUNPATH)\)' || fail "$file has a search path"
  done
}

# What the documents link to beside themselves is installed as well.
check_links() {
  local document target links=0
  while IFS=: read -r document target; do
    [[ $target =~ ^[a-z]+: ]] && continue
    [[ -e ${document%/*}/${target%%#*} ]] || fail "${document##*/} links to $target, which is not there"
    links=$((links + 1))
  done < <(find "$work/whole/usr/share/doc/qnm" -name '*.md' \
    -exec grep --with-filename --only-matching --perl-regexp '\]\(\K[^)#][^)]*' {} +)
  ((links > 20)) || fail "only $links links were found in the documents"
}

main() {
  need pkg-config cmake ninja
  mapfile -t components < <(sed -n 's/^QNM_INSTALL_COMPONENTS:INTERNAL=//p' \
    "$build/CMakeCache.txt" | tr ';' '\n')
  ((${#components[@]} >= 4)) || fail "the components are not known"
  install_into "$work/whole"
  check_components
  check_links
  check_prefix
  check_binaries
  use_installation "$work/whole"
  echo "passed"
}

main
