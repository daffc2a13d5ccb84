# What a test program prints -> a line for each test: PASS, FAIL with the end of its output, SKIP with
# the reason. The same words and names go to the file `results`, with two more:
#
#   OUTSIDE TEXT   something failed that is no test: the set-up or the end of a suite or of the program
#   STATUS N       as the program ended; the last line of the input, "status N"

function over(word, rest) {
    print word, running rest
    print word, running > results
    running = ""
    fflush()
}

# "[  FAILED  ] Name, where GetParam() = 7 (3 ms)": true at the end of the test that runs. The list of
# failures behind the last test looks the same.
function ends_test(name) {
    sub(/,$/, "", name)
    return running != "" && name == running
}

{ lines++; text[lines % 40] = $0 }
/^\[ RUN      \] / { running = $4; lines = 0; reason = "" }
/: Skipped$/ { wants_reason = 1; next }
wants_reason { reason = $0; wants_reason = 0 }
/^\[       OK \] / && ends_test($4) { over("PASS", ""); next }
/^\[  SKIPPED \] / && ends_test($4) { over("SKIP", ": " reason); next }
/^\[  FAILED  \] / && ends_test($4) {
    over("FAIL", "")
    for (i = lines > 30 ? lines - 29 : 1; i < lines; i++) print text[i % 40]
    fflush()
    next
}
running == "" && (/: Failure$/ || /: SetUpTestSuite or TearDownTestSuite$/) {
    print "OUTSIDE any test:", $0
    print "OUTSIDE", $0 > results
    fflush()
}
/^status / { status = $2 }
END { print "STATUS", status > results }
