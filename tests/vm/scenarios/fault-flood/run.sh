# A controller that floods 5000 reports a second for 30 s, then one that sends
# only garbage for 30 s, beside a probe controller whose touches must still
# arrive within 20 ms; VmRSS bounded (see ../fault-flood-short/flood.sh).
# Not in the default run (manual):  tests/vm/run-vm.sh fault-flood
cd ../fault-flood-short && . ./flood.sh
flood_run 30
