#!/usr/bin/env python3
"""scripts/qemu-count-instructions.py on hand-written logs in qemu 7.2's
formats (in_asm blocks, exec lines of nochain), so that a change to the
parser that miscounts, counts another thread or the code around the call,
or ignores a missing record fails here and not silently in a table."""

import os
import subprocess
import sys
import tempfile
import unittest

PARSER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts",
                      "qemu-count-instructions.py")
BIAS = 0x5500000000


def block(symbol, pc, size):
    lines = ["----------------", "IN: " + symbol]
    lines += ["0x%x:  d503201f  nop" % (pc + 4 * i) for i in range(size)]
    return "\n".join(lines) + "\n\n"


def trace(cpu, pc, symbol=""):
    return "Trace %d: 0x7ff60b4a6940 [0000000001009331/%016x/00000001/00000200] %s\n" % (cpu, pc, symbol)


def run(log, entry=0xac64, returns=(0xa484,)):
    with tempfile.NamedTemporaryFile("w", suffix=".log", delete=False) as file:
        file.write(log)
    try:
        args = [sys.executable, PARSER, "--function", "drain", "--entry", "%x" % entry]
        for address in returns:
            args += ["--return", "%x" % address]
        return subprocess.run(args + [file.name], capture_output=True, text=True)
    finally:
        os.unlink(file.name)


# main's block that calls, the function's two blocks, a callee elsewhere,
# the block at the return address.
CALLER, ENTRY, LOOP, CALLEE, AFTER = BIAS + 0xa470, BIAS + 0xac64, BIAS + 0xac80, 0x5502838850, BIAS + 0xa484
BLOCKS = (block("main", CALLER, 5) + block("drain", ENTRY, 7) + block("drain", LOOP, 3)
          + block("", CALLEE, 11) + block("main", AFTER, 2))


class QemuCountInstructions(unittest.TestCase):
    def test_counts_the_function_and_its_callees_between_entry_and_return(self):
        log = BLOCKS + trace(0, CALLER) + trace(0, ENTRY, "drain") + trace(0, LOOP) + trace(0, LOOP) \
            + trace(0, CALLEE) + trace(0, AFTER) + trace(0, CALLER) + trace(0, ENTRY) + trace(0, AFTER)
        result = run(log)
        self.assertEqual(result.returncode, 0, result.stderr)
        # first call 7 + 3 + 3 + 11, second call 7; caller and return blocks never
        self.assertEqual(result.stdout.split(), ["31", "2", "5", "0", "0x5500000000"])

    def test_other_threads_are_left_out(self):
        log = BLOCKS + trace(0, ENTRY) + trace(1, CALLEE) + trace(2, LOOP) + trace(0, AFTER) + trace(1, ENTRY) \
            + trace(1, LOOP) + trace(1, AFTER)
        result = run(log)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.split(), ["7", "1", "1", "2", "0x5500000000"])

    def test_a_retranslated_block_counts_with_its_latest_size(self):
        log = BLOCKS + trace(0, ENTRY) + trace(0, AFTER) + block("drain", ENTRY, 4) + trace(0, ENTRY) + trace(0, AFTER)
        result = run(log)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.split()[0], "11")

    def test_a_measured_block_without_in_asm_is_an_error(self):
        log = BLOCKS + trace(0, ENTRY) + trace(0, 0x5502999000) + trace(0, AFTER)
        result = run(log)
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("no in_asm record", result.stderr)

    def test_a_function_never_run_is_an_error(self):
        result = run(block("main", CALLER, 5) + trace(0, CALLER))
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("no block of drain was translated", result.stderr)

    def test_a_wrong_entry_address_is_an_error(self):
        result = run(BLOCKS + trace(0, ENTRY) + trace(0, AFTER), entry=0xac60)
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("not page-aligned", result.stderr)

    def test_no_return_to_a_call_site_is_an_error(self):
        result = run(BLOCKS + trace(0, ENTRY) + trace(0, LOOP), returns=(0xa488,))
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("never returned", result.stderr)


if __name__ == "__main__":
    unittest.main()
