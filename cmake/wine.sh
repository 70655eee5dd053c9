#!/bin/sh
# Wine's 64-bit loader with the address-space layout of the process fixed: every Windows program of
# the build and the tests starts through here (wine-run.sh, windows-tests.sh, the scripts under Wine).
#
# Debian's Wine has no preloader, the piece that reserves Windows' fixed addresses before anything
# else is mapped. The loader itself sits at 0x7d000000, and with address randomization the kernel
# puts its heap anywhere in the gigabyte after it, which now and then covers 0x7ffe0000, where every
# Wine process must map the shared user data. That process then ends at once, before it runs a line
# of its own: "failed to map the shared user data: c0000018", which WINEDEBUG=-all hides, so a test
# saw a program print nothing at all, or a service fail to start. Without randomization the heap
# follows the loader directly. Processes that Wine starts from this one (the service manager and the
# services it starts among them) inherit the setting.
exec setarch "$(uname -m)" -R /usr/lib/wine/wine64 "$@"
