# shellcheck shell=bash
# Sourced by what runs tests: keeps their files in memory if there is room. Many tests flush what they
# write; on a disk that is still busy with the files of a build, each flush waits for these.
if [[ -z ${TMPDIR:-} && -w /dev/shm ]] && (($(df --output=avail -k /dev/shm | tail -1) > 2000000)); then
    export TMPDIR=/dev/shm
fi
