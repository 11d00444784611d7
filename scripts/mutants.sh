#!/usr/bin/env bash
# Seeded-fault check of the test suite; see mutants.py.
exec python3 "$(dirname "$0")/mutants.py" "$@"
