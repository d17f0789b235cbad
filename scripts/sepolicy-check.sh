#!/usr/bin/env bash
# Compiles the project's SELinux policy (sepolicy/) into the platform's, once per release, as a
# device build does before it ships: the platform's public, private and vendor folders, then the
# product's folder (sepolicy/system_ext/), then the vendor's (sepolicy/vendor/ and the release's
# own sepolicy/androidNN/), user build, full Treble, neverallow checks on.
#   scripts/sepolicy-check.sh [--selftest] [DIR]
#       DIR: holds androidNN/system/sepolicy for each release (../shared/android-platform-sepolicy)
#       --selftest: afterwards, shows that lines the platform forbids make the compile fail
# For each release: m4 (--fatal-warnings -s, the platform's defines) makes policy.conf, and
# `checkpolicy -M -c 30` compiles it; `setfiles -c` checks the project's file_contexts against the
# result; every type the project's contexts files name must exist in the compiled policy with the
# attributes its kind needs (read from the compiled policy, turned back into CIL by checkpolicy).
# Prints one line per release and a tally; exits non-zero on any failure. Everything a run makes
# (policy.conf, policy.bin, the compiler's messages) is kept in build-sepolicy-check/.
set -euo pipefail

selftest=0
if [ "${1:-}" = "--selftest" ]; then
  selftest=1
  shift
fi
platform=${1:-../shared/android-platform-sepolicy}
if [ ! -d "$platform" ]; then
  echo "usage: scripts/sepolicy-check.sh [--selftest] DIR (no folder $platform)" >&2
  exit 2
fi
platform=$(cd "$platform" && pwd)
cd "$(dirname "$0")/.."
project=$PWD/sepolicy
out=$PWD/build-sepolicy-check
scripts/install-deps.sh checkpolicy policycoreutils m4

# The order in which the platform's build concatenates policy files (build/soong/policy.go). Android
# 14 puts attributes in one group with *.te and its flagging macros first; Debian's checkpolicy
# wants an attribute declared before a type uses it, so here attributes stay ahead of *.te. Within
# a group files keep their folder's order, so the compiled policy is the same.
order_of() {
  case $1 in
    android13)
      echo security_classes initial_sids access_vectors global_macros neverallow_macros \
        mls_macros mls_decl mls policy_capabilities te_macros attributes ioctl_defines \
        ioctl_macros '*.te' roles_decl roles users initial_sid_contexts fs_use genfs_contexts \
        port_contexts ;;
    *)
      echo security_classes initial_sids access_vectors global_macros neverallow_macros \
        mls_macros mls_decl mls policy_capabilities te_macros ioctl_defines ioctl_macros \
        attributes '*.te' roles_decl roles users initial_sid_contexts fs_use genfs_contexts \
        port_contexts ;;
  esac
}

m4_defines=(-Dmls_num_sens=1 -Dmls_num_cats=1024 -Dtarget_arch=arm64
  -Dtarget_build_variant=user -Dtarget_full_treble=true -Dtarget_compatible_property=true
  -Dtarget_treble_sysprop_neverallow=true -Dtarget_enforce_sysprop_owner=true
  -Dtarget_with_asan=false -Dtarget_with_native_coverage=false -Dtarget_recovery=false)

# make_conf RELEASE OUT.conf [EXTRA_FOLDER...]: the release's policy.conf with the project's folders
# (and any extra folder after them).
make_conf() {
  local release=$1 conf=$2
  shift 2
  local base=$platform/$release/system/sepolicy
  local folders=("$base/public" "$base/private" "$base/vendor"
    "$project/system_ext/public" "$project/system_ext/private"
    "$project/vendor" "$project/$release" "$@")
  local files=() pattern folder name
  [ -f "$base/flagging/te_macros" ] && files+=("$base/flagging/te_macros")
  for pattern in $(order_of "$release"); do
    for folder in "${folders[@]}"; do
      [ -d "$folder" ] || continue
      while IFS= read -r name; do
        # shellcheck disable=SC2254  # the pattern is a glob on purpose
        case $name in $pattern) files+=("$folder/$name") ;; esac
      done < <(cd "$folder" && LC_ALL=C ls)
    done
  done
  m4 --fatal-warnings -s "${m4_defines[@]}" "${files[@]}" > "$conf"
}

# compile CONF BIN LOG: checkpolicy with neverallow checks on; its messages go to LOG.
compile() {
  checkpolicy -M -c 30 -o "$2" "$1" > "$3" 2>&1
}

# The attributes a type named in each contexts file must carry, by the file and the entry's kind.
# file_contexts: device nodes are dev_type; files are vendor files (file_type, vendor_file_type),
# and executables also exec_type. property_contexts: the vendor's are vendor properties, the
# product's system properties. service_contexts: a protected HAL service.
attributes_for() {  # FILE KEY TYPE
  case $1:$2:$3 in
    */file_contexts:/dev/*) echo dev_type ;;
    */file_contexts:*:*_exec) echo file_type vendor_file_type exec_type ;;
    */file_contexts:*) echo file_type vendor_file_type ;;
    vendor/property_contexts:*) echo property_type vendor_property_type ;;
    */property_contexts:*) echo property_type system_property_type ;;
    */service_contexts:*) echo service_manager_type hal_service_type protected_service ;;
  esac
}

# check_contexts CIL FILE...: every line's type exists in the compiled policy (CIL, as checkpolicy
# writes it back from the binary) with the attributes attributes_for names; vendor property names
# use a prefix the platform leaves to vendors. Prints one line per fault; fails if there is one.
check_contexts() {
  local cil=$1
  shift
  local sets faults=0 file key context type attribute
  sets=$(grep '^(typeattributeset ' "$cil")
  for file in "$@"; do
    while read -r key context; do
      case $key in ''|'#'*) continue ;; esac
      context=$(grep -o 'u:object_r:[^: ]*:s0' <<<"$context" || true)
      type=${context#u:object_r:}
      type=${type%:s0}
      if [ -z "$type" ]; then
        echo "  $file: $key: no context"
        faults=$((faults + 1))
        continue
      fi
      if ! grep -qx "(type $type)" "$cil"; then
        echo "  $file: $key: type $type is not in the compiled policy"
        faults=$((faults + 1))
        continue
      fi
      for attribute in $(attributes_for "$file" "$key" "$type"); do
        if ! grep -q "^(typeattributeset $attribute (\(.* \)\?${type}[ )]" <<<"$sets"; then
          echo "  $file: $key: type $type lacks the attribute $attribute"
          faults=$((faults + 1))
        fi
      done
      case $file:$key in
        vendor/property_contexts:vendor.*|vendor/property_contexts:persist.vendor.*) ;;
        vendor/property_contexts:ro.vendor.*) ;;
        vendor/property_contexts:*)
          echo "  $file: $key: not a vendor property name (vendor., persist.vendor., ro.vendor.)"
          faults=$((faults + 1)) ;;
      esac
    done < <(cd "$project" && cat "$file")
  done
  [ "$faults" -eq 0 ]
}

contexts_files=(vendor/file_contexts vendor/property_contexts vendor/service_contexts
  system_ext/private/property_contexts)

# check_release RELEASE: compiles it and checks the contexts files; one line of result.
check_release() {
  local release=$1 dir=$out/$1 problems
  mkdir -p "$dir"
  if [ ! -d "$project/$release" ]; then
    echo "$release: FAILED: the project has no sepolicy/$release folder for this release"
    return 1
  fi
  if ! make_conf "$release" "$dir/policy.conf" 2> "$dir/m4.log"; then
    echo "$release: FAILED: m4 (see $dir/m4.log)"
    return 1
  fi
  if ! compile "$dir/policy.conf" "$dir/policy.bin" "$dir/checkpolicy.log"; then
    echo "$release: FAILED: checkpolicy:"
    grep -v '^libsepol.policydb_index_others' "$dir/checkpolicy.log" | sed 's/^/  /' | tail -20
    return 1
  fi
  local status=0
  if ! (cd "$project" && setfiles -c "$dir/policy.bin" vendor/file_contexts) \
      > "$dir/setfiles.log" 2>&1; then
    echo "$release: FAILED: setfiles -c vendor/file_contexts:"
    sed 's/^/  /' "$dir/setfiles.log"
    status=1
  fi
  checkpolicy -M -b -C -o "$dir/policy.cil" "$dir/policy.bin" > "$dir/cil.log" 2>&1
  if ! problems=$(check_contexts "$dir/policy.cil" "${contexts_files[@]}"); then
    echo "$release: FAILED: contexts files:"
    echo "$problems"
    status=1
  fi
  [ "$status" = 0 ] || return 1
  echo "$release: ok (checkpolicy with neverallow checks, setfiles -c, every contexts type" \
    "with its attributes)"
}

# The self-test's lines, each something the module must not be granted: the line, what it
# would allow, and the start of the violation checkpolicy reports for it.
refused_lines=(
  'get_prop(hal_atcmd_default, system_prop)'
  'allow hal_atcmd_default vendor_shell_exec:file { rx_file_perms execute_no_trans };'
)
refused_what=('reading net.bluetooth.macaddr (system_prop)' 'running a shell')
refused_violation=('hal_atcmd_default system_prop:file' 'hal_atcmd_default vendor_shell_exec:file')

# expect_refusals RELEASE: the policy with every refused line added must fail, and the compiler
# must name a neverallow for each line (one compile: checkpolicy reports every violation).
expect_refusals() {
  local release=$1 dir=$out/$1/selftest i found faults=0
  mkdir -p "$dir/extra"
  printf '%s\n' "${refused_lines[@]}" > "$dir/extra/selftest.te"
  make_conf "$release" "$dir/policy.conf" "$dir/extra"
  if compile "$dir/policy.conf" /dev/null "$dir/checkpolicy.log"; then
    echo "$release: self-test FAILED: the refused lines compiled"
    return 1
  fi
  for i in "${!refused_lines[@]}"; do
    found=$(grep "neverallow.*violated by allow ${refused_violation[$i]}" "$dir/checkpolicy.log" |
      head -1 | grep -o 'neverallow on line [0-9]* of [^ ]*' | sed "s|$platform/||" || true)
    if [ -n "$found" ]; then
      echo "$release: self-test ok: ${refused_what[$i]} refused ($found)"
    else
      echo "$release: self-test FAILED: ${refused_what[$i]} (${refused_lines[$i]}) was not" \
        "refused by a neverallow"
      faults=$((faults + 1))
    fi
  done
  [ "$faults" -eq 0 ]
}

# The contexts check itself: a property labelled with an executable's type must be reported.
expect_contexts_fault() {
  local release=$1 dir=$out/$1/selftest-contexts
  mkdir -p "$dir/vendor"
  printf 'vendor.selftest u:object_r:hal_atcmd_default_exec:s0 exact string\n' \
    > "$dir/vendor/property_contexts"
  if (project=$dir && check_contexts "$out/$release/policy.cil" vendor/property_contexts) \
      > "$dir/faults.log"; then
    echo "$release: self-test FAILED: a property with a file's type passed the contexts check"
    return 1
  fi
  echo "$release: self-test ok: a property with a file's type is reported"
}

releases=()
for folder in "$platform"/android*/system/sepolicy; do
  [ -d "$folder" ] || continue
  release=${folder#"$platform"/}
  releases+=("${release%%/*}")
done
if [ ${#releases[@]} -eq 0 ]; then
  echo "no release found under $platform (androidNN/system/sepolicy)" >&2
  exit 2
fi

# run_release RELEASE: its check, and its self-test when asked; fails if anything failed.
run_release() {
  local release=$1
  check_release "$release" || return 1
  [ "$selftest" = 1 ] || return 0
  local status=0
  expect_refusals "$release" || status=1
  expect_contexts_fault "$release" || status=1
  return "$status"
}

# The releases run side by side (each compile takes one core); their lines print in order.
pids=()
for release in "${releases[@]}"; do
  mkdir -p "$out/$release"
  run_release "$release" > "$out/$release/report.txt" 2>&1 &
  pids+=($!)
done
failed=0
for i in "${!releases[@]}"; do
  wait "${pids[$i]}" || failed=$((failed + 1))
  cat "$out/${releases[$i]}/report.txt"
done
what="compiled and checked"
[ "$selftest" = 1 ] && what="compiled, checked and self-tested"
echo "policy check: ${#releases[@]} releases $what, $failed failed"
[ "$failed" -eq 0 ]
