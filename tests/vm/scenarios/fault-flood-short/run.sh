# Five-second version of fault-flood (see flood.sh), in the default run.
. ./flood.sh
flood_run 5
