# One-command set-up: every target creates the virtual environment it needs,
# installs the build and test tools, builds the C++ extension and installs the
# package before doing its job.
PYTHON ?= python3
VENV   ?= .venv
PY     := $(VENV)/bin/python
BUILD_TOOLS := "scikit-build-core>=0.10" "nanobind>=2.4" cmake ninja
TEST_TOOLS  := "pytest>=7" "hypothesis>=6" "matplotlib>=3.6"

# The property and fuzz tests draw their inputs from a seed that changes once a day:
# every run of one day (a developer's, CI's) draws the same inputs, so a failure
# seen in CI can be reproduced here, and the next day explores new ones.
# `make check HYPOTHESIS_SEED=N` replays another day's inputs.
HYPOTHESIS_SEED ?= $(shell date -u +%Y%m%d)
PYTEST_ARGS := -q --hypothesis-seed=$(HYPOTHESIS_SEED)

SAN_VENV := .venv-sanitize
SAN_PY   := $(SAN_VENV)/bin/python

.PHONY: all install check test demo bench bench-quick bench-micro sanitize clean

all: test

$(VENV)/.tools: pyproject.toml
	$(PYTHON) -m venv $(VENV)
	$(PY) -m pip install -q --upgrade pip
	$(PY) -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

# --no-build-isolation keeps the build folder's paths stable, so rebuilds are incremental.
install: $(VENV)/.tools
	$(PY) -m pip install -q --no-build-isolation --no-deps -Cbuild-dir=build/release .

# The README's test command and what CI runs: the whole suite on the release build,
# then the whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
test: check sanitize

# The whole suite on the release build only: the quick loop while developing.
check: install $(VENV)/.postgres
	$(PY) -m pytest $(PYTEST_ARGS) tests

# The demonstration runs in build/demo, prepared from the bundled sample tables.
demo: install
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
	$(PYTHON) -m venv $(SAN_VENV)
	$(SAN_PY) -m pip install -q --upgrade pip
	$(SAN_PY) -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

# Sanitizer reports go to files (pytest's output capture would lose them when the
# process aborts) and are printed, failing the run, whatever pytest's status.
SAN_REPORT := $(abspath build/sanitize)/report

sanitize: $(SAN_VENV)/.tools $(SAN_VENV)/.postgres
	$(SAN_PY) -m pip install -q --no-build-isolation --no-deps -Cbuild-dir=build/sanitize \
	    -Ccmake.build-type=RelWithDebInfo -Ccmake.define.VEX_SANITIZE=ON .
	rm -f $(SAN_REPORT).*
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

clean:
	rm -rf build $(VENV) $(SAN_VENV)
