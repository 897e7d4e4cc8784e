#!/usr/bin/env python3
"""Guest instructions executed inside one function, read from a qemu-user log.

    qemu-count-instructions.py --function NAME --entry ADDR --return ADDR [--return ADDR...] LOG

LOG is what `qemu-<arch> -d in_asm,exec,nochain -D LOG` writes (a file or a
FIFO: it is read once, front to back, so it never has to be stored). ADDR
are the link-time addresses of the function's first instruction and of the
instruction after each of its call sites (nm/objdump of the program).

in_asm prints every translation block once, when it is translated, before
it first runs: "IN: symbol", then one line per guest instruction
("0x<pc>:  ..."), then a blank line. exec with nochain prints one line per
block run, "Trace <cpu>: <host> [<cs_base>/<pc>/<flags>/<cflags>] symbol",
where <cpu> is the guest thread (0 = the main thread). Instructions executed
are the sum, over the blocks run, of their instruction counts: between a run
of the entry block and a run of a return address, on thread 0 only. That is
callgrind's --toggle-collect=NAME: the function and everything it calls, on
the thread that called it, nothing before or after.

The program is position-independent: qemu loads it at a base of its own.
The load bias is the first address at which a block labelled NAME was
translated (execution enters the function at its entry) minus ADDR.

Prints "instructions calls blocks other_thread_blocks bias" on one line.
"""

import argparse
import sys


def parse_address(text):
    return int(text, 16)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--function", required=True)
    parser.add_argument("--entry", required=True, type=parse_address)
    parser.add_argument("--return", dest="returns", required=True, action="append", type=parse_address)
    parser.add_argument("log")
    args = parser.parse_args()

    block_sizes = {}  # guest pc -> instructions of its latest translation
    label = "IN: " + args.function + "\n"
    bias = None
    entry = None
    returns = set()

    instructions = 0
    calls = 0
    blocks = 0
    other_thread_blocks = 0
    measuring = False
    unknown_blocks = 0

    block_pc = None
    block_size = 0
    block_label = None
    with open(args.log, "r", errors="replace") as log:
        for line in log:
            first = line[:1]
            if first == "T" and line.startswith("Trace "):
                colon = line.index(":", 6)
                pc = int(line.split("/", 2)[1], 16)
                if line[6:colon] != "0":
                    if measuring:
                        other_thread_blocks += 1
                    continue
                if measuring:
                    if pc in returns:
                        measuring = False
                        continue
                elif pc == entry:
                    measuring = True
                    calls += 1
                else:
                    continue
                size = block_sizes.get(pc)
                if size is None:
                    unknown_blocks += 1
                    continue
                instructions += size
                blocks += 1
            elif first == "0" and block_label is not None:
                if block_size == 0:
                    block_pc = int(line[: line.index(":")], 16)
                block_size += 1
            elif first == "I" and line.startswith("IN:"):
                block_label = line
                block_size = 0
            elif first == "\n" and block_label is not None:
                if block_size:
                    block_sizes[block_pc] = block_size
                    if bias is None and block_label == label:
                        bias = block_pc - args.entry
                        entry = block_pc
                        returns = {address + bias for address in args.returns}
                block_label = None

    if bias is None:
        sys.exit("qemu-count-instructions: no block of %s was translated: was it run?" % args.function)
    if bias % 4096:
        sys.exit("qemu-count-instructions: load bias %#x is not page-aligned: the entry address is wrong" % bias)
    if unknown_blocks:
        sys.exit("qemu-count-instructions: %d measured blocks ran with no in_asm record: the log is incomplete"
                 % unknown_blocks)
    if measuring:
        sys.exit("qemu-count-instructions: %s never returned to a known call site" % args.function)
    print(instructions, calls, blocks, other_thread_blocks, "%#x" % bias)


if __name__ == "__main__":
    main()
