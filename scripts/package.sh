#!/usr/bin/env bash
# Builds both packages: the Debian package of the Linux helper
# (build/linux/orvel-vpn-helper_<version>-<revision>_<arch>.deb), then the
# Windows installer where its script is present. Installs what it needs.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/package-linux.sh
if [ -f scripts/package-windows.sh ]; then
  bash scripts/package-windows.sh
fi
