#!/bin/bash
# docs.sh: makes the manual (build/docs/html/index.html) from the headers and pages; a warning of Doxygen's is an error.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh docs
mkdir -p build
doxygen Doxyfile
echo "docs.sh: build/docs/html/index.html"
