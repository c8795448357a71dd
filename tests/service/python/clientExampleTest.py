"""The shipped Python example, service/python/egwClientExample.py, run against egwd."""

import os
import subprocess
import sys

import egwdProcess
from egwdProcess import EgwdTestCase

FIRE_ALARM_STATE, NORMAL = 0x80001, 0x60001
RUN_SECONDS = 60


class ExampleRuns:
    """Runs of the example against the test's egwd."""

    def run_example(self, *arguments):
        return subprocess.run(
            [sys.executable, egwdProcess.settings.example, *arguments], capture_output=True,
            text=True, timeout=RUN_SECONDS, env=dict(os.environ), check=False)

    def service(self):
        return "127.0.0.1:%d" % self.egwd.port

    def check_fire_alarm_run(self, *options):
        # The first optical smoke detector of the sample panel.
        detector = self.element("det-1-001")
        run = self.run_example(*options, "--timeout", "20", self.service(), "2222")
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        out = run.stdout
        self.assertIn("logged in: session 2 at access level 2", out)
        self.assertIn("event 1: id 0x3010001, element %d, ID string 01.001" % detector, out)
        self.assertIn("state change: group 0x80001, 0x60001 -> 0x60002", out)
        self.assertIn("detail: category ", out)
        self.assertIn("reset group 0x80001 of element %d to 0x60001" % detector, out)
        # The detector was put back.
        self.assertEqual(self.egwd.connect().getState(detector, FIRE_ALARM_STATE), NORMAL)

    def element(self, key):
        keys = egwdProcess.element_keys(self.egwd.connect())
        return next(uuid for uuid, name in keys.items() if name == key)


class ClientExampleTest(EgwdTestCase, ExampleRuns):

    def test_raises_and_resets_a_fire_alarm(self):
        self.check_fire_alarm_run()

    def test_ids_given_on_the_command_line(self):
        # The other optical smoke detector, disabled and enabled again.
        detector = self.element("det-2-001")
        run = self.run_example("--detector", str(detector), "--group", "0x80003", "--value",
                               "0x60007", "--timeout", "20", self.service(), "2222")
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        self.assertIn("element %d, ID string 01.001" % detector, run.stdout)
        self.assertIn("state change: group 0x80003, 0x60008 -> 0x60007", run.stdout)
        self.assertEqual(self.egwd.connect().getState(detector, 0x80003), 0x60008)

    def test_refusals_and_usage(self):
        run = self.run_example(self.service(), "0000")
        self.assertEqual(run.returncode, 1, run.stdout + run.stderr)
        self.assertIn("BAD_PASSWORD (7)", run.stderr)
        run = self.run_example("--detector", "99999", self.service(), "2222")
        self.assertEqual(run.returncode, 1, run.stdout + run.stderr)
        self.assertIn("NO_SUCH_ELEMENT (2)", run.stderr)
        self.assertIn("99999", run.stderr)
        for arguments in ((), ("127.0.0.1", "2222"), (self.service(), "2222", "--detector=x")):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.run_example(*arguments).returncode, 2)


class ClientExampleCompactTest(EgwdTestCase, ExampleRuns):
    egwd_arguments = ("--protocol", "compact")

    def test_raises_and_resets_a_fire_alarm(self):
        self.check_fire_alarm_run("--compact")


if __name__ == "__main__":
    egwdProcess.main()
