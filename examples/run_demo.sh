#!/bin/sh
# Runs the demo agent end to end.
set -e
BUILD=${1:-build}
exec "$BUILD/examples/loop_demo"
