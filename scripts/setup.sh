#!/usr/bin/env bash
# Installs the Debian packages that fmri-rem needs to build and test, and
# nothing else. Quick when everything is already present.
set -euo pipefail

packages=(g++ make cmake pkg-config clang-format libfftw3-dev libniftiio-dev libnifti2-dev
          zlib1g-dev libgtest-dev googletest nifti-bin nlohmann-json3-dev libcli11-dev
          libboost-math-dev libpng-dev help2man clang libclang-rt-14-dev
          python3-nibabel python3-scipy)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo=""
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "Error: root rights are needed to install ${missing[*]}" >&2; exit 1; }
  sudo=sudo
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "Packages installed."
