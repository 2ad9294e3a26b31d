#!/usr/bin/env bash
# realstack/make-kernel.sh PACKAGE DIRECTORY: unpacks Debian's kernel and the modules that Bluetooth needs; writes
# DIRECTORY/kernel and DIRECTORY/modules.cpio.
set -euo pipefail
package=$1 directory=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
version=${package#linux-image-}

(cd "$work" && apt-get -qq -o APT::Sandbox::User=root download "$package" && dpkg-deb --extract ./*.deb .)
[ -e "$work/lib" ] || ln -s usr/lib "$work/lib" # from Debian 13 on
depmod -b "$work" "$version"

# drbg before ecdh_generic: otherwise the kernel's security manager fails, and Low Energy controllers stay off.
mkdir -p "$work/root/modules"
for module in drbg hmac sha512_generic ecdh_generic algif_hash algif_skcipher cmac ecb ctr aes_generic \
    bluetooth hci_vhci uhid; do
    modprobe -d "$work" -S "$version" --show-depends "$module"
done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' | while read -r file; do
    cp "$file" "$work/root/modules/"
    echo "/modules/${file##*/}" >>"$work/root/modules/list"
done
xz --decompress --force "$work"/root/modules/*.xz 2>/dev/null && sed -i 's/\.xz$//' "$work/root/modules/list"

mkdir -p "$directory"
# An uncompressed kernel boots four seconds faster in the emulator. Debian 12 packs it with xz.
packed=$work/boot/vmlinuz-$version
offset=$(LC_ALL=C grep -obUaP '\xFD7zXZ\x00' "$packed" | head -n 1 | cut -d : -f 1) &&
    tail -c "+$((offset + 1))" "$packed" | xz --decompress --single-stream >"$directory/kernel" 2>/dev/null || true
[ -s "$directory/kernel" ] || cp "$packed" "$directory/kernel"
(cd "$work/root" && find . | cpio --create --format=newc --quiet) >"$directory/modules.cpio"
