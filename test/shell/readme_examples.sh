#!/usr/bin/env bash
# The README's examples: every SQL example runs as written and gives the result the README states
# (test/shell/readme_examples.pl tells what runs and how results are read).
source "$(dirname "$0")/../../scripts/lib.sh"
prepare_test_server
perl "$PROJECT_ROOT/test/shell/readme_examples.pl" "$PROJECT_ROOT/README.md"
