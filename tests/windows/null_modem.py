#!/usr/bin/env python3
"""Two serial ports joined by a null modem: what is written to one can be read from the other.

  null_modem.py LINK LINK    links to the two pseudo-terminals; runs until it is killed

The text "HANG UP" written to the second one hangs up the first.
"""

import os
import pty
import select
import sys
import tty


def port(link):
    far, near = pty.openpty()
    tty.setraw(near)
    if os.path.lexists(link):
        os.unlink(link)
    os.symlink(os.ttyname(near), link)
    return far, near  # kept open, so that a program that closes its end does not hang up the far end


def main():
    first, second = (port(link) for link in sys.argv[1:3])
    print("joined", flush=True)
    other = {first[0]: second[0], second[0]: first[0]}
    while True:
        for ready in select.select(list(other), [], [])[0]:
            data = os.read(ready, 4096)
            if ready == second[0] and b"HANG UP" in data:
                del other[first[0]]
                for end in first:
                    os.close(end)
            elif other[ready] in other:
                os.write(other[ready], data)


main()
