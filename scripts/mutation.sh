#!/usr/bin/env bash
# Mutation run: how many small faults planted in the daemon's sources the host unit suite
# catches. Not part of scripts/test.sh (it takes an hour or more for 150 mutants).
#
#   scripts/mutation.sh                         seed 1, 150 mutants of src/
#   scripts/mutation.sh --seed 7 --size 300
#   scripts/mutation.sh --folders touch,config  only mutants of src/touch/ and src/config/
#   scripts/mutation.sh --only touch,config     the seed-1 sample of all src/, judging only its
#                                               mutants in src/touch/ and src/config/ (compare
#                                               with --summary --only of a whole run)
#   scripts/mutation.sh --list                  print the sample and its digest, build nothing
#   scripts/mutation.sh --summary               counts and survivors of the verdicts so far
#   nice -n 15 scripts/mutation.sh              on a shared machine
#
# Options: --seed N (1), --size N (150), --folders A,B (all of src/), --only A,B, --out DIR
# (build-mutation/out/seed<N>-n<size>[-<folders>]), --build DIR (build-mutation), --jobs N (2).
#
# Mutants, one per place in a .cpp or .h file under src/:
#   relational  < <= > >= == != turned into <= < >= > != ==
#   logical     && and || swapped
#   constant    an integer literal one up or one down (the direction fixed per place)
#   return      return true/false swapped; the value of any other return in a function
#               declared bool negated
#   call        a statement that is only a call (or a call cast to void) replaced by {}
# Never mutated: comments, strings and character literals, preprocessor lines (includes,
# macros), array sizes in declarations, and the whole statement of a debug log call
# (TLOG, TLOG_ERR, DebugLog, DebugErrorLog), a hex dump made for the log (HexDumpBytes),
# printf/fprintf and static_assert. The sample is drawn from all candidates with Python's
# random.Random(seed), so the same seed and size on the same sources pick the same mutants;
# the run prints a digest of the sample to show it. A larger sample of a seed begins with
# the whole of a smaller one when both sizes are multiples of 50.
#
# Each mutant is written into a copy of the sources (<build>/tree, synchronised from the
# work tree at every start; src/ itself is never written), and built with Ninja in
# <build>/build (RelWithDebInfo's -O2 without debug information, linked with lld; warnings
# are errors except -Wparentheses, which a swapped && or || would nearly always trip). Only
# the mutated object is compiled and the programs that use it relinked; afterwards the
# source and the unmutated objects are put back with their old time stamps, so that the
# next mutant compiles one file again. Verdicts:
#   not-compiled  the mutant does not compile or link (left out of the share)
#   equivalent    it compiles to the same object code, or changes no test program: no test
#                 can tell it apart (left out of the share)
#   killed        a test program whose binary changed fails; a failing test is run once
#                 more on its own and counts only when it fails again, as in the test command
#   timeout       a test program ran past its limit (5 times its unmutated time, at least
#                 30 s) twice: counted as killed
#   survived      every changed test program passed
# The tests of the mutated folder run first, then the other changed programs from the
# quickest; each stops at its first failing test (--gtest_fail_fast). The process tests
# run when the daemon binary they start changed.
#
# Output folder: sample.txt (the sample and its digest), baseline.json and baseline.log
# (the unmutated build and test times), per mutant NNN/mutant.diff, NNN/log.txt (build and
# test output) and NNN/verdict, and summary.txt (counts, kill share, time, load, and the
# survivors). An interrupted run resumes where it stopped when started again with the same
# options; mutants with a verdict are not built again.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh cmake g++ libgtest-dev libgmock-dev ninja-build lld python3

# The run puts the copy of the sources back itself on SIGINT, SIGTERM and SIGHUP; a signal
# sent to this shell alone is passed on to it.
/usr/bin/python3 scripts/mutation.py "$@" &
child=$!
trap 'kill -TERM "$child" 2>/dev/null || true' INT TERM HUP
status=0
wait "$child" || status=$?
# wait returns early when a trapped signal arrives: wait for the run to finish its clean-up.
while kill -0 "$child" 2>/dev/null; do wait "$child" || status=$?; done
exit "$status"
