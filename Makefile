# One-command set-up: every target creates the virtual environment it needs,
# installs the build and test tools, builds the C++ extension and installs the
# package before doing its job.
PYTHON ?= python3
VENV   ?= .venv
PY     := $(VENV)/bin/python
BUILD_TOOLS := "scikit-build-core>=0.11" "nanobind>=2.4" cmake ninja
TEST_TOOLS  := "pytest>=7" "hypothesis>=6" "matplotlib>=3.6"

# The property and fuzz tests draw their inputs from a seed that changes once a day:
# every run of one day (a developer's, CI's) draws the same inputs, so a failure
# seen in CI can be reproduced here, and the next day explores new ones.
# `make check HYPOTHESIS_SEED=N` replays another day's inputs.
HYPOTHESIS_SEED ?= $(shell date -u +%Y%m%d)
PYTEST_ARGS := -q --hypothesis-seed=$(HYPOTHESIS_SEED)

SAN_VENV := .venv-sanitize
SAN_PY   := $(SAN_VENV)/bin/python

# The other supported interpreters: each gets its own environment (.venv-3.12, ...)
# and build folder, and `make test` runs the whole suite on each.
OTHER_PYTHONS := 3.12 3.13
FIND_PYTHON   := tools/find-python

.PHONY: all install check test demo bench bench-quick sanitize lint clean wheels bench-micro web bench-web-pages \
        $(addprefix check-,$(OTHER_PYTHONS))

all: test

$(VENV)/.tools: pyproject.toml
	@echo "== creating $(VENV) and installing the build and test tools (about a minute)"
	$(PYTHON) -m venv $(VENV)
	$(PY) -m pip install -q --upgrade pip
	$(PY) -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

# --no-build-isolation keeps the build folder's paths stable, so a re-install after
# a small change, or with an extra (`make install EXTRAS=plot`), recompiles only
# what changed. Each interpreter has its own build folder.
EXTRAS ?=
install: $(VENV)/.tools
	@echo "== building the C++ extension (release, build/release) and installing the package into $(VENV)"
	@echo "   (a first build takes several minutes; later builds recompile only what changed)"
	$(PY) -m pip install -q --no-build-isolation -Cbuild-dir=build/release ".$(if $(EXTRAS),[$(EXTRAS)])"

# The README's test command and what CI runs: the whole suite on the release build,
# then the whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer,
# then the release build on each other supported Python.
test: check sanitize $(addprefix check-,$(OTHER_PYTHONS))

# The whole suite on the release build only: the quick loop while developing.
check: install $(VENV)/.postgres
	@echo "== running the whole test suite on the release build"
	$(PY) -m pytest $(PYTEST_ARGS) tests

# The same on another interpreter, e.g. `make check-3.13`. A missing interpreter
# fails the run: a version that was not tested must not look as if it passed.
.venv-%/.tools: pyproject.toml
	@py="$$($(FIND_PYTHON) $*)" || { echo "Python $* not found (neither python$* on the PATH nor a pyenv $*.x): it is needed to test on $*" >&2; exit 1; }; \
	echo "$$py -m venv .venv-$*"; "$$py" -m venv .venv-$*
	.venv-$*/bin/python -m pip install -q --upgrade pip
	.venv-$*/bin/python -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS) $(POSTGRES_EXTRA) $(WEB_TOOLS)
	touch $@

$(addprefix check-,$(OTHER_PYTHONS)): check-%: .venv-%/.tools
	.venv-$*/bin/python -m pip install -q --no-build-isolation --no-deps -Cbuild-dir=build/release-$* .
	.venv-$*/bin/python -m pytest $(PYTEST_ARGS) tests

# The demonstration runs in build/demo, prepared from the bundled sample tables.
demo: install
	@echo "== preparing build/demo from the bundled samples, then running the demonstration there"
	rm -rf build/demo
	env -u VEXCORE_FILES_DIR -u VEXCORE_DB $(PY) -m vexcore.samples build/demo
	cd build/demo && env -u VEXCORE_FILES_DIR -u VEXCORE_DB $(abspath $(PY)) -m vexcore.qrvdev.QRVTableManager

bench: install
	$(PY) bench/run.py

bench-quick: install
	$(PY) bench/run.py --quick

# The small calls a driver makes on every beam switch, beside the pure-Python peer;
# the table goes into docs/benchmarks.md.
bench-micro: install
	$(PY) bench/micro.py --docs

# AddressSanitizer + UndefinedBehaviorSanitizer build in its own environment.
$(SAN_VENV)/.tools: pyproject.toml
	@echo "== creating $(SAN_VENV) and installing the build and test tools for the sanitizer build"
	$(PYTHON) -m venv $(SAN_VENV)
	$(SAN_PY) -m pip install -q --upgrade pip
	$(SAN_PY) -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

# Sanitizer reports go to files (pytest's output capture would lose them when the
# process aborts) and are printed, failing the run, whatever pytest's status.
SAN_REPORT := $(abspath build/sanitize)/report

sanitize: $(SAN_VENV)/.tools $(SAN_VENV)/.postgres
	@echo "== building the C++ extension with AddressSanitizer and UndefinedBehaviorSanitizer (build/sanitize)"
	@echo "   (a first build takes several minutes)"
	$(SAN_PY) -m pip install -q --no-build-isolation --no-deps -Cbuild-dir=build/sanitize \
	    -Ccmake.build-type=RelWithDebInfo -Ccmake.define.VEX_SANITIZE=ON .
	rm -f $(SAN_REPORT).*
	@echo "== running the whole test suite under the sanitizers"
	LD_PRELOAD="$$(gcc -print-file-name=libasan.so) $$(gcc -print-file-name=libubsan.so)" \
	ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:log_path=$(SAN_REPORT) \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:log_path=$(SAN_REPORT) \
	PYTHONMALLOC=malloc $(SAN_PY) -m pytest $(PYTEST_ARGS) -p no:faulthandler tests $(SANITIZE_ARGS); \
	status=$$?; \
	if ls $(SAN_REPORT).* >/dev/null 2>&1; then cat $(SAN_REPORT).*; exit 1; fi; \
	exit $$status

# The table database's tests run on PostgreSQL too: a throwaway cluster made with
# Debian's server binaries (installed here when initdb is missing) and the
# [postgres] extra in each test environment.
PG_BIN_DIR ?= /usr/lib/postgresql/15/bin
POSTGRES_EXTRA := "psycopg[binary]>=3.1"

.PHONY: postgres-server
postgres-server:
	@test -x $(PG_BIN_DIR)/initdb || command -v initdb >/dev/null || \
	    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq postgresql; }

$(VENV)/.postgres: $(VENV)/.tools | postgres-server
	$(PY) -m pip install -q $(POSTGRES_EXTRA)
	touch $@

$(SAN_VENV)/.postgres: $(SAN_VENV)/.tools | postgres-server
	$(SAN_PY) -m pip install -q $(POSTGRES_EXTRA)
	touch $@

bench-web: install $(VENV)/.postgres
	$(PY) bench/web_mode.py

# The web front end: its extra and the browser tests' tools in both test environments,
# and Debian's Chromium with its driver on the machine (installed when missing).
WEB_TOOLS := "starlette>=0.37" "uvicorn>=0.29" "jinja2>=3.1" "python-multipart>=0.0.9" "httpx2" "selenium>=4.20"
BROWSER   := /usr/bin/chromium /usr/bin/chromedriver

$(BROWSER):
	command -v apt-get >/dev/null || { echo "the browser tests need Debian's chromium and chromium-driver"; exit 1; }
	$$(test "$$(id -u)" = 0 || echo sudo) sh -c 'apt-get update -q && \
	    DEBIAN_FRONTEND=noninteractive apt-get install -y -q chromium chromium-driver'

$(VENV)/.web: $(VENV)/.tools $(BROWSER)
	$(PY) -m pip install -q $(WEB_TOOLS)
	touch $@

$(SAN_VENV)/.web: $(SAN_VENV)/.tools $(BROWSER)
	$(SAN_PY) -m pip install -q $(WEB_TOOLS)
	touch $@

check: $(VENV)/.web
sanitize: $(SAN_VENV)/.web
# The other interpreters' runs and the wheels' runs need the same server and browser.
$(addprefix check-,$(OTHER_PYTHONS)) wheels: | postgres-server $(BROWSER)
export WHEEL_TEST_TOOLS := $(subst ",,$(POSTGRES_EXTRA) $(WEB_TOOLS))

# Speed of the front end's pages on the largest device, beside reading the table alone.
bench-web-pages: install $(VENV)/.web
	$(PY) bench/web_pages.py

# The front end on the demonstration data, prepared in build/web on first use (edits
# made in the browser stay until `rm -rf build/web`). Open http://127.0.0.1:8000/
web: install $(VENV)/.web
	test -d build/web || env -u VEXCORE_FILES_DIR -u VEXCORE_DB $(PY) -m vexcore.web.demo build/web
	cd build/web && env -u VEXCORE_DB VEXCORE_FILES_DIR=$(abspath build/web/files) \
	    $(abspath $(PY)) -m vexcore.web --db files/vexcore_tables.db

# ruff (lint and format check), mypy (src/vexcore, examples) and clang-format on native/, with the
# configuration in pyproject.toml and .clang-format. CI runs it after the test command.
LINT_TOOLS   := "ruff>=0.6" "mypy>=1.10" "clang-format>=18"
NATIVE_FILES  = $(shell git ls-files 'native/*.cpp' 'native/*.h')

$(VENV)/.lint-tools: $(VENV)/.tools
	@echo "== installing ruff, mypy and clang-format into $(VENV)"
	$(PY) -m pip install -q $(LINT_TOOLS)
	touch $@

lint: $(VENV)/.lint-tools
	@echo "== ruff check, ruff format --check"
	$(VENV)/bin/ruff check .
	$(VENV)/bin/ruff format --check .
	@echo "== mypy (src/vexcore, examples)"
	$(VENV)/bin/mypy
	@echo "== clang-format --dry-run on the native files"
	$(VENV)/bin/clang-format --dry-run --Werror $(NATIVE_FILES)

clean:
	rm -rf build dist $(VENV) $(SAN_VENV) $(addprefix .venv-,$(OTHER_PYTHONS))
