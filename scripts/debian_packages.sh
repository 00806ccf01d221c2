#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes Debian packages of a build, with what cmake/install/debian says of each.
#   scripts/debian_packages.sh BUILD FOLDER
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$(realpath "$1")
mkdir -p "$2"
folder=$(realpath "$2")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r cmake/install/debian "$work/debian"
cd "$work"
umask 022
export LC_ALL=C.UTF-8
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
if [[ $(dpkg-parsechangelog -S Version) != "$version" ]]; then
  echo "debian_packages.sh: cmake/install/debian/changelog has no entry for version $version" >&2
  exit 1
fi
# The same build makes the same bytes.
SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(dpkg-parsechangelog -S Timestamp)}
export SOURCE_DATE_EPOCH

declare -A components=([zem]=Runtime [libzem1]=Library [libzem-dev]=Development [python3-zem]=Python)

# In the places where Debian has them.
arrange() {
  local documents=usr/share/doc
  mkdir -p "$documents/$package"
  if [[ $package == libzem-dev ]]; then
    mv "$documents/zem/examples" "$documents/$package/"
    rmdir "$documents/zem"
  fi
  rm -f "$documents/$package/LICENSE" # copyright says it
  if [[ -d usr/share/zsh/site-functions ]]; then
    mv usr/share/zsh/site-functions usr/share/zsh/vendor-completions
  fi
  cp "$work/debian/copyright" "$documents/$package/"
  gzip -9n <"$work/debian/changelog" >"$documents/$package/changelog.gz"
  find usr/share/man -type f -exec gzip -9n {} + 2>/dev/null || true
}

shrink() {
  find . -name '*.a' -exec strip --strip-debug --remove-section=.comment --enable-deterministic-archives {} +
  find . -type f \( -name '*.so*' -o -path './usr/bin/*' \) \
    -exec strip --strip-unneeded --remove-section=.comment --remove-section=.note {} +
  find . -type f -name '*.so*' -exec chmod 644 {} +
}

# Which packages bring the shared libraries that the programs need.
find_libraries() {
  local binaries
  mapfile -t binaries < <(find "debian/$package" -type f \( -name '*.so*' -o -path '*/usr/bin/*' \))
  rm -f debian/substvars
  ((${#binaries[@]} == 0)) || dpkg-shlibdeps -pshlibs "${binaries[@]}"
}

control_files() {
  local file
  for file in shlibs triggers postinst prerm; do
    [[ ! -f debian/$package.$file ]] || cp "debian/$package.$file" "debian/$package/DEBIAN/$file"
  done
  find "debian/$package/DEBIAN" -name 'p*' -exec chmod 755 {} +
  # Fails when the library has a function that the list does not know, or lacks one that an earlier
  # version had.
  if [[ -f debian/$package.symbols ]]; then
    dpkg-gensymbols -c4 -p"$package" -P"debian/$package"
  fi
  dpkg-gencontrol -p"$package" -P"debian/$package"
  (cd "debian/$package" && find usr -type f -print0 | sort -z | xargs -0 md5sum >DEBIAN/md5sums)
}

for package in "${!components[@]}"; do
  stage=$work/debian/$package
  mkdir -p "$stage/DEBIAN"
  DESTDIR=$stage cmake --install "$build" --prefix /usr --component "${components[$package]}" >/dev/null
  (cd "$stage" && arrange && shrink)
  find_libraries
  control_files
  find "$stage" -exec touch --no-dereference --date="@$SOURCE_DATE_EPOCH" {} +
  dpkg-deb --root-owner-group -Zxz --build "$stage" "$folder"
done
