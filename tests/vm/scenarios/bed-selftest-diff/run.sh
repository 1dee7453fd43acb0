# Self-test of the bed's comparison: runs the USB simulator scenario and is
# compared with a deliberately wrong expected trace (see expect-fail).
cd ../bed-usb-sim && . ./run.sh
