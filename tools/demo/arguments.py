"""What demo.py and stage.py are both told."""


def add_common(parser):
    parser.add_argument("--stay", action="store_true")
    parser.add_argument("--daemon-command", help="instead of the stand-in")
    parser.add_argument("--daemon-directory", help="where that command runs")
    parser.add_argument("agent")
    parser.add_argument("daemon")
