# Sums one ctest run for scripts/test.sh. Input: the run's JUnit file (ctest --output-junit);
# -v results=<folder> holds <test>.xml, the cases of each test that runs a GoogleTest program.
# Each GoogleTest case counts once, any other test as one case; a test that fails with no failed
# case of its own (a crash, a timeout, a sanitizer's report at exit) counts as one failed case.
# Prints "skip <reason>" per skipped case, "fail <test>" per failed test, then "counts P F S".
function unescape(t) {
  gsub(/&quot;/, "\"", t); gsub(/&apos;/, "'", t); gsub(/&lt;/, "<", t); gsub(/&gt;/, ">", t)
  gsub(/&#x0A;|&#10;/, " ", t); gsub(/&amp;/, "\\&", t)
  return t
}
# The cases of `test` from its GoogleTest results; returns 0 when it wrote none.
function cases(test,   file, line, found, failing, reason) {
  file = results "/" test ".xml"
  found = 0
  while ((getline line < file) > 0) {
    if (line ~ /<testcase /) {
      found = 1
      failing = 0
      if (line ~ /result="skipped"/) s++; else p++
    } else if (line ~ /<failure / && !failing) {
      failing = 1
      p--; f++; caseFailed++
    } else if (line ~ /<skipped message="/) {
      reason = line
      sub(/.*<skipped message="/, "", reason); sub(/".*/, "", reason)
      reason = unescape(reason)
      sub(/^[^ ]*:[0-9]+ /, "", reason) # the file and line of the skip
      print "skip " reason
    }
  }
  close(file)
  return found
}
function finish() {
  if (name == "") return
  caseFailed = 0
  if (cases(name)) {
    if (status == "fail" && caseFailed == 0) { f++; print "fail " name }
    else if (caseFailed > 0) print "fail " name
  } else if (status == "run") p++
  else if (status == "notrun" && skipCode) { s++; print "skip " (why == "" ? name " (no reason given)" : why) }
  else if (status != "disabled") { f++; print "fail " name }
  name = ""
}
/<testcase / {
  finish()
  name = $0; sub(/.*<testcase name="/, "", name); sub(/".*/, "", name)
  status = $0; sub(/.* status="/, "", status); sub(/".*/, "", status)
  why = ""; skipCode = 0
}
/<skipped message="SKIP_/ { skipCode = 1 }
/skipped: / && why == "" { why = $0; sub(/.*skipped: /, "", why); why = unescape(why) }
/<\/testcase>|<testcase [^>]*\/>/ { finish() }
END { finish(); print "counts " p + 0, f + 0, s + 0 }
