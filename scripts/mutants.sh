#!/usr/bin/env bash
# Seeded mutants of src/ against the test programs; see tests/README.md.
# usage: scripts/mutants.sh [-n N] [-s SEED] [-l LAYER] [-b BUILD] [--own] [--list]
exec python3 "$(dirname "$0")/mutants.py" "$@"
