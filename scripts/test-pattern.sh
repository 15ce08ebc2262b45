# Sourced by the scripts that show the time-stamped test pattern: find_test_pattern prints the
# orin-test-pattern to run (ORIN_TEST_PATTERN, else the first build that has one) or exits.
find_test_pattern() {
  if [ -n "${ORIN_TEST_PATTERN:-}" ]; then
    echo "$ORIN_TEST_PATTERN"
    return
  fi
  local root candidate
  root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
  for candidate in "$root"/build/*/tools/test-pattern/orin-test-pattern; do
    if [ -x "$candidate" ]; then
      echo "$candidate"
      return
    fi
  done
  echo "$(basename "$0"): orin-test-pattern not found; build it or set ORIN_TEST_PATTERN" >&2
  exit 1
}
