# Prints the report of scripts/sqlite-suite from the output of SQLite's test program:
#   awk -v files="FILE..." -v groups="GROUP..." -v modes="own MODE..." -v all_end=0|1
#       -f scripts/sqlite-report.awk docs/sqlite.md RESULTS/MODE-FILE...
# Exits with 1 if a test failed in a mode and not with SQLite's own layer ("own"), unless
# docs/sqlite.md names it; with all_end=1 also if a file did not end in some mode.

# docs/sqlite.md names tests in backquotes.
FILENAME == "docs/sqlite.md" {
  words = split($0, word, "`")
  for (i = 2; i < words; i += 2) explained[word[i]]
  next
}

FNR == 1 { result = FILENAME; sub(".*/", "", result); state[result] = "ended" }
/^out of time: / { state[result] = "slow" }
/^[0-9]+ errors? out of [0-9]+ tests/ { tests[result] = $5 }
sub(/^!Failures on these tests: /, "") { failures[result] = $0 }

function group_of(file,    i) {
  for (i = 1; i in group; ++i) if (index(file, group[i]) == 1) return group[i]
  gsub(/[0-9]/, "", file)
  return file
}

function count(row, mode, result) {
  if (mode == "own") ++listed[row]
  if (state[result] != "ended") return
  ++ended[row, mode]
  total[row, mode] += tests[result]
}

# Puts each failed test of a file into its list. The first mode is "own", with which others compare.
function judge(mode, file, result,    i, test, seen) {
  split(tests[result] == "" ? file "-did-not-end" : failures[result], word)
  for (i = 1; i in word; ++i) {
    test = word[i]
    if (test in seen) continue
    seen[test]
    if (mode == "own") own_fails[file, test]
    else if ((file, test) in own_fails) continue
    if (mode == "own" || test in explained) known[mode] = known[mode] " " test
    else { alone[mode] = alone[mode] " " test; failed = 1 }
  }
}

function print_row(row,    m) {
  printf "| %s | %d |", row, listed[row]
  for (m = 1; m in mode; ++m) printf " %d: %d |", ended[row, mode[m]], total[row, mode[m]]
  print ""
}

function print_list(text, names) { if (names != "") print "- " text ":" names "." }

END {
  split(files, file)
  split(groups, group)
  split(modes, mode)
  for (f = 1; f in file; ++f) {
    row = group_of(file[f])
    if (!(row in listed)) rows[++row_count] = row
    for (m = 1; m in mode; ++m) {
      result = mode[m] "-" file[f]
      count(row, mode[m], result)
      count("all", mode[m], result)
      if (state[result] == "") missing[mode[m]] = missing[mode[m]] " " file[f]
      else if (state[result] == "slow") slow[mode[m]] = slow[mode[m]] " " file[f]
      else if (state["own-" file[f]] == "ended") judge(mode[m], file[f], result)
      if (tests[result] == "") unended[mode[m]] = unended[mode[m]] " " file[f]
    }
  }

  print "| group | files | SQLite's own layer | buffered | block | direct |"
  print "|---|---|---|---|---|---|"
  for (r = 1; r <= row_count; ++r) print_row(rows[r])
  print_row("all")
  print ""
  for (m = 2; m in mode; ++m) {
    print_list("Failed with `" mode[m] "` alone", alone[mode[m]] == "" ? " none" : alone[mode[m]])
    print_list("Failed with `" mode[m] "` alone, for a reason that is known", known[mode[m]])
  }
  print_list("Failed with SQLite's own layer", known["own"] == "" ? " none" : known["own"])
  for (m = 1; m in mode; ++m) {
    print_list("Out of time, `" mode[m] "`", slow[mode[m]])
    print_list("Not run yet, `" mode[m] "`", missing[mode[m]])
    if (all_end && unended[mode[m]] != "") {
      print_list("Did not end, `" mode[m] "`", unended[mode[m]])
      failed = 1
    }
  }
  exit failed
}
