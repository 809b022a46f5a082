#!/usr/bin/env bash
# Checks what dist/ offers to monitoring: alert rules, what they do, and every question of the dashboard.
# usage: monitoring.sh SOURCE_FOLDER
set -euo pipefail
promtool=$1/scripts/promtool.sh
cd "$1/dist"
"$promtool" check rules tansyd.rules.yml
"$promtool" test rules tansyd.rules.test.yml

questions=$(mktemp)
trap 'rm -f "$questions"' EXIT
python3 - >"$questions" <<'END'
import json
board = json.load(open("tansyd.dashboard.json"))
print("groups:\n  - name: dashboard\n    rules:")
for panel in board["panels"]:
    for target in panel["targets"]:
        print("      - record: question:%d%s" % (panel["id"], target["refId"].lower()))
        print("        expr: " + json.dumps(target["expr"].replace("$instance", ".*")))
END
"$promtool" check rules "$questions"
