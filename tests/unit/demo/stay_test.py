"""Tests of what ./run --stay makes of typed lines."""

import contextlib
import io
import unittest

from stay import Player, Refused


class FakeStage:
    """Writes down what it is asked to do."""

    def __init__(self):
        self.done = []
        self.status = None
        self.etc = self
        self.timeline = self

    def __getattr__(self, name):
        return lambda *arguments: self.done.append((name, *arguments))

    def agent_status(self):
        return self.status

    def start_agent(self):
        self.done.append(("start_agent",))
        self.status = None

    def end_agent(self):
        self.done.append(("end_agent",))
        self.status = 0

    def daemon_help(self):
        return ["  put TEXT   send it", "  help       these lines", "  quit       end"]


class PlayerTest(unittest.TestCase):
    def after(self, *lines, own=None):
        stage = FakeStage()
        player = Player(stage, own)
        for line in lines:
            self.assertTrue(player.obey(line), line)
        return stage.done

    def test_carries_out_its_own_commands(self):
        self.assertEqual(self.after("lock", " unlock \n", "zone Europe/Berlin", "kill", "restart"),
                         [("set_locked", True), ("set_locked", False), ("set_zone", "Europe/Berlin"),
                          ("kill_daemon",), ("kill_daemon",), ("start_daemon",)])

    def test_ends_the_agent_once_and_starts_it_again(self):
        self.assertEqual(self.after("logout", "login"), [("end_agent",), ("start_agent",)])
        player = Player(FakeStage(), None)
        with self.assertRaises(Refused):
            player.obey("login")
        player.obey("logout")
        with self.assertRaises(Refused):
            player.obey("logout")

    def test_hands_the_daemons_commands_on(self):
        self.assertEqual(self.after("put some  text"), [("tell_daemon", "put some  text")])

    def test_hands_everything_else_to_a_daemon_that_it_does_not_know(self):
        self.assertEqual(self.after("shout", own="./mine"), [("tell_daemon", "shout")])

    def test_refuses_what_makes_no_sense(self):
        player = Player(FakeStage(), None)
        for line in ("shout", "lock now", "kill it", "quit now", "zone", "zone Europe/Berlin now"):
            with self.subTest(line=line), self.assertRaises(Refused):
                player.obey(line)

    def test_passes_over_empty_lines_and_comments(self):
        self.assertEqual(self.after("", "  ", "# lock"), [])

    def test_quit_ends(self):
        self.assertFalse(Player(FakeStage(), None).obey("quit"))

    def test_one_help_names_every_command_once(self):
        out = io.StringIO()
        with contextlib.redirect_stdout(out):
            self.after("help")
        words = [line.split()[0] for line in out.getvalue().splitlines() if line.startswith("  ")]
        self.assertEqual(words, ["lock,", "zone", "kill", "restart", "logout,", "help", "quit", "put"])


if __name__ == "__main__":
    unittest.main()
