#!/usr/bin/env bash
# Installs over a configuration that is there: an edited file stays as it is, an untouched one is
# replaced by the new sample, a missing one is put there.
set -euo pipefail
# shellcheck source=test/install/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly samples=$source/conf
readonly stage=$work/stage
readonly conf=$stage/opt/tarvo/qnm/conf
readonly last=$stage/usr/share/qnm/conf

install_again() {
  DESTDIR=$stage cmake --install "$build" --prefix /usr --component runtime >"$work/told" 2>&1 ||
    fail "$(<"$work/told")"
}

# expect_told FILE YES_OR_NO: whether the installation said that the file was kept.
expect_told() {
  local told=no
  grep -qF "Kept: $conf/$1" "$work/told" && told=yes
  [[ $told == "$2" ]] || fail "asked whether $1 was kept, it told: $(<"$work/told")"
}

# Both files as a former version installed them.
install_former() {
  local name
  for name in qnm.conf qnm_log4c.properties; do
    echo '# of the version before' | tee "$last/$name" >"$conf/$name"
  done
}

check_untouched() {
  install_former
  install_again
  expect_same "$conf/qnm.conf" "$samples/qnm.conf"
  expect_same "$conf/qnm_log4c.properties" "$samples/qnm_log4c.properties"
  expect_told qnm.conf no
}

check_edited() {
  install_former
  echo 'log_level = 4' >>"$conf/qnm.conf"
  cp "$conf/qnm.conf" "$work/edited"
  local times
  for times in once twice; do
    install_again
    cmp "$conf/qnm.conf" "$work/edited" || fail "installed $times, the edited file is lost"
    expect_told qnm.conf yes
    expect_same "$last/qnm.conf" "$samples/qnm.conf"
    expect_same "$conf/qnm_log4c.properties" "$samples/qnm_log4c.properties"
  done
}

check_missing() {
  rm "$conf/qnm.conf"
  install_again
  expect_same "$conf/qnm.conf" "$samples/qnm.conf"
}

# A link is the operator's doing, wherever it leads.
check_link() {
  ln -sf /nowhere "$conf/qnm.conf"
  install_again
  [[ $(readlink "$conf/qnm.conf") == /nowhere ]] || fail "a link was replaced"
}

# An ordinary user installs below his own prefix; that he has no configuration elsewhere, he is told.
# In his place stands root without the capabilities that would let him write everywhere.
# The part below packaging is enough, and unlike the whole leaves no list of files in the build, which
# may be somebody else's.
check_ordinary_user() {
  local -a user=(setpriv --bounding-set=-all --inh-caps=-all)
  mkdir -p "$work/system/home"
  chmod 555 "$work/system"
  ! "${user[@]}" test -w "$work/system" || fail "nothing keeps him from writing $work/system"
  DESTDIR=$work/system "${user[@]}" cmake --install "$build/packaging" --prefix /home/qnm \
    --component runtime >"$work/told" 2>&1 || fail "$(<"$work/told")"
  grep -qF "$work/system/opt/tarvo/qnm/conf cannot be written" "$work/told" ||
    fail "nothing is said of the configuration: $(<"$work/told")"
  [[ ! -e $work/system/opt ]] || fail "he could write there"
  expect_same "$work/system/home/qnm/share/qnm/conf/qnm.conf" "$samples/qnm.conf"
}

# A folder that is named relative to where the command is called, and that the installation makes.
check_relative() {
  (
    cd "$work"
    DESTDIR=folder timeout 300 cmake --install "$build/packaging" --prefix /usr \
      --component runtime >"$work/told" 2>&1
  ) || fail "into a relative folder: $(<"$work/told")"
  expect_same "$work/folder/opt/tarvo/qnm/conf/qnm.conf" "$samples/qnm.conf"
}

main() {
  need cmake
  install_again
  check_untouched
  check_edited
  check_missing
  check_link
  check_ordinary_user
  check_relative
  echo "passed"
}

main
