#!/usr/bin/env bash
# The main job: builds the agent and the operator client, then deploys a
# staged agent on this machine and drives it: a ping, and a simulated backup
# from start to result.  Extra arguments go to "kvx-eactl demo"
# (--seconds N, --exit CODE).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target kvx_ea kvx-eactl kvxbackupvol-sim >/dev/null

echo "== kvx-eactl ping hello"
build/bin/kvx-eactl ping hello
echo
echo "== kvx-eactl demo $*"
build/bin/kvx-eactl demo "$@"
