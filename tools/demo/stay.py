"""The hand-play of ./run --stay: whoever sits there types what happens next."""

import sys

import play
from timeline import Missing

OWN_HELP = """\
  lock, unlock                    lock or unlock the screen
  zone NAME                       change the time zone, for example: zone Europe/Berlin
  kill                            kill the daemon
  restart                         kill the daemon, if it runs, and start it
  logout, login                   end the agent, and start it again
  help                            print these lines
  quit                            end everything; so do Ctrl-C and the end of the input"""

OUTSIDE = """From another terminal:
  tail -f {log}
  export DBUS_SYSTEM_BUS_ADDRESS={address}
  busctl --system monitor com.brovik.velmdaemon
  dbus-send --system --dest=org.freedesktop.login1 {session} org.freedesktop.login1.Session.SetLockedHint boolean:true
"""


class Refused(Exception):
    """A typed line that makes no sense; the text says why."""


class Player:
    """Carries out typed lines."""

    def __init__(self, stage, own):
        self._stage = stage
        self._own = own
        # The stand-in ends with everything, and these lines are the one help.
        self._of_daemon = [] if own else [line for line in stage.daemon_help()
                                          if line.split()[0] not in ("help", "quit")]
        self._words = {line.split()[0] for line in self._of_daemon}
        self._commands = {"lock": self._lock, "unlock": self._unlock, "zone": self._zone, "kill": self._kill,
                          "restart": self._restart, "logout": self._logout, "login": self._login,
                          "help": self._help}

    def obey(self, line):
        """Carries out one line; False if it asks for the end."""
        word, _, rest = line.strip().partition(" ")
        rest = rest.strip()
        if not word or word.startswith("#"):
            return True
        if word == "quit" and not rest:
            return False
        if word in self._commands:
            if rest and word != "zone":
                raise Refused(f"{word} takes nothing behind it")
            self._commands[word](rest)
        elif self._own or word in self._words:
            self._stage.tell_daemon(line.strip())
        else:
            raise Refused(f'unknown command "{word}"; try help')
        return True

    def help(self):
        text = OWN_HELP
        if self._own:
            text += "\nAnything else goes to the standard input of your daemon."
        else:
            text += "\nWhat the daemon does:\n" + "\n".join(self._of_daemon)
        return text

    def _lock(self, _rest):
        self._stage.set_locked(True)

    def _unlock(self, _rest):
        self._stage.set_locked(False)

    def _zone(self, rest):
        if not rest or " " in rest:
            raise Refused("zone needs one name, for example Europe/Berlin")
        self._stage.etc.set_zone(rest)

    def _kill(self, _rest):
        self._stage.kill_daemon()

    def _restart(self, _rest):
        self._stage.kill_daemon()
        self._stage.start_daemon()

    def _logout(self, _rest):
        if self._stage.agent_status() is not None:
            raise Refused("the agent has ended already")
        self._stage.end_agent()

    def _login(self, _rest):
        if self._stage.agent_status() is None:
            raise Refused("the agent runs already")
        self._stage.start_agent()

    def _help(self, _rest):
        self._stage.timeline.settle()
        print(self.help(), flush=True)


def link_up_with_own(stage, timeline):
    """The agent and a daemon of whoever sits there, which may be far from finished."""
    stage.build()
    stage.start_daemon()
    stage.await_daemon()
    stage.start_agent()
    try:
        timeline.wait("agent", r"Monitor launcher: connected came$", cap=5)
    except Missing:
        timeline.note("run", "Your daemon has not called connected: yet; the agent asks each second until it does")


def stay(stage, timeline, outside, own):
    """Brings the link up and does what is typed, until the end is asked for."""
    if own:
        timeline.heading(f"The agent starts, and with it {own}")
        link_up_with_own(stage, timeline)
    else:
        timeline.heading(play.describe(play.link_up, stage))
        play.link_up(stage, timeline)
    player = Player(stage, own)
    timeline.quieten()
    timeline.settle()
    print(f"\nAll is up. Type, and press Enter:\n{player.help()}\n\nThe agent's log: {stage.log}\n")
    if outside:
        print(OUTSIDE.format(log=stage.log, address=stage.address, session=stage.session))
    sys.stdout.flush()
    for line in sys.stdin:
        try:
            if not player.obey(line):
                break
        except Refused as refused:
            timeline.note("run", f"Not done: {refused}")
        except Missing as missing:
            timeline.note("run", f"Not done: missing {missing}")
    timeline.quieten()
    return 0
