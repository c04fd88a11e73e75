"""python -m vexcore.web: serve the table front end (see vexcore-web --help)."""

import sys

from vexcore.web.cli import main

sys.exit(main())
