#!/usr/bin/env bash
# Runs fmri-rem from the given build folder.
set -euo pipefail
build=${1:-build}
"$build/fmri-rem" -h
