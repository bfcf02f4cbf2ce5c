#!/bin/bash
# The device build: cross-compiles library, tools and unit tests for mipsel and runs the tests
# under qemu-mipsel (scripts/cross-build).
set -euo pipefail
cd "$(dirname "$0")/../.."
bash scripts/cross-build
