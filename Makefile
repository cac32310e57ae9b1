# Everything a user or developer runs. The first target that needs it makes .venv (packages from pip, the project built in place);
# later ones only rebuild what changed. Nothing has to be installed by hand but a C++20 compiler, zlib's header and CPython 3.13.

VENV := .venv
RUN := $(VENV)/bin/python
NATIVE_FOLDERS := solver pysupport collaborators core util attrutil matrixapi modelapi highs
NATIVE := $(shell find $(NATIVE_FOLDERS) -name '*.cpp' -o -name '*.h' -o -name '*.inc' 2>/dev/null | sort)
PYTHON_SOURCES := $(shell find python -name '*.py' -o -name '*.pyi' -o -name py.typed | sort)
FORMATTED := $(filter %.cpp %.h,$(NATIVE))

.DELETE_ON_ERROR:
.PHONY: help demo test night sanitize sanitize-short sanitize-arrays sanitize-store bench docs format lint wheel clean FORCE

help:
	@echo 'make demo     solve the examples on real data, pictures in out/'
	@echo 'make test     run the tests'
	@echo 'make night    hold 200,000 random programs against NumPy (hours; what fails is tried first from then on)'
	@echo 'make sanitize run the tests with checks of addresses and of undefined behaviour (sanitize-short: fewer of them)'
	@echo 'make bench    measure against arrays by hand, linopy, cvxpy and casadi; table in docs/benchmarks.md'
	@echo 'make docs     the pages and the API reference as HTML in build/docs'
	@echo 'make format   format C++ and Python in place'
	@echo 'make lint     check formatting and style, change nothing'
	@echo 'make wheel    build a wheel into dist/ and check what it holds'
	@echo 'make clean    remove everything that make made'

demo: $(VENV)/installed
	$(RUN) -m examples.unit_commitment
	@echo
	$(RUN) -m examples.portfolio
	@echo
	$(RUN) -m examples.ac_power_flow
	@echo
	$(RUN) -m examples.circle_packing

test: $(VENV)/installed
	$(RUN) -m pytest

night: $(VENV)/installed
	$(RUN) -m pytest tests/programs --hypothesis-profile=night

sanitize: build/sanitize/built
	$(call run_sanitized,sanitize,)

# What continuous integration has time for: no engines and examples, few random cases, two processes side by side.
sanitize-short: build/sanitize/built
	@$(MAKE) --no-print-directory --output-sync=target -j2 sanitize-arrays sanitize-store

sanitize-arrays: build/sanitize/built
	$(call run_sanitized,$@,--hypothesis-profile=sanitize tests/matrixapi tests/programs)

sanitize-store: build/sanitize/built
	$(call run_sanitized,$@,--hypothesis-profile=sanitize tests/solver tests/model tests/core tests/util tests/attrutil)

bench: $(VENV)/bench
	$(RUN) benchmarks/run.py --table docs/benchmarks.md
	$(RUN) benchmarks/quadratic.py --table docs/benchmarks.md
	$(RUN) benchmarks/nonlinear.py --table docs/benchmarks.md
	$(RUN) benchmarks/everyday.py --table docs/benchmarks.md
	$(RUN) benchmarks/growth.py --table docs/benchmarks.md --picture docs/growth.svg

# -E: Sphinx sees no change of a compiled docstring, and reports moved names as double.
docs: $(VENV)/docs
	$(RUN) -m sphinx -E -W --keep-going -q docs build/docs
	@echo 'build/docs/index.html'

format: $(VENV)/packages
	$(VENV)/bin/ruff format .
	$(VENV)/bin/ruff check --fix .
	$(if $(FORMATTED),$(VENV)/bin/clang-format -i $(FORMATTED))

lint: $(VENV)/packages
	$(VENV)/bin/ruff format --check .
	$(VENV)/bin/ruff check .
	$(if $(FORMATTED),$(VENV)/bin/clang-format --dry-run --Werror $(FORMATTED))

wheel: $(VENV)/packages
	rm -rf build/wheel dist
	$(RUN) -m pip wheel --quiet --no-deps --wheel-dir dist .
	$(RUN) tools/check_wheel.py dist/*.whl

clean:
	rm -rf $(VENV) build dist out .pytest_cache .ruff_cache .hypothesis

# --- the environment, in three steps, each with a stamp ---------------------------------------------------------------

# Build requirements, runtime dependencies and tools: everything but the project. Made anew when pyproject.toml changes. Packages
# of the group data are there for files that they ship: --no-deps leaves out what only their code needs.
$(VENV)/packages: pyproject.toml tools/requirements.py
	@python=$$(tools/check_prerequisites) || exit 1; \
	test -x $(RUN) || { echo "making $(VENV) with $$python"; "$$python" -m venv --clear $(VENV); }
	$(RUN) tools/requirements.py build test demo > $(VENV)/requirements.txt
	$(RUN) -m pip install --quiet --requirement $(VENV)/requirements.txt
	$(RUN) tools/requirements.py --group data > $(VENV)/requirements-data.txt
	$(RUN) -m pip install --quiet --no-deps --requirement $(VENV)/requirements-data.txt
	@touch $@

# The project, in place: Python files are read from python/, the compiled ones are built in build/editable and copied. A changed native
# file or a changed list of files installs again (seconds: only what changed is compiled); an edited Python file needs nothing.
$(VENV)/installed: $(VENV)/packages $(VENV)/sources CMakeLists.txt $(NATIVE)
	$(RUN) -m pip install --quiet --no-deps --no-build-isolation --editable .
	@touch $@

$(VENV)/sources: $(VENV)/packages FORCE
	@printf '%s\n' $(NATIVE) $(PYTHON_SOURCES) | cmp -s - $@ || printf '%s\n' $(NATIVE) $(PYTHON_SOURCES) > $@

# A build of its own for the sanitizers. The interpreter itself is run, with the packages of .venv on its path: in .venv the
# editable install would come first. Leaks are not asked for, as the interpreter leaves some; memory comes from malloc block by block.
# Reports on addresses go into files, as a test may expect a child to fail; those on undefined behaviour can only be printed, so pytest
# leaves the streams alone. A request that is too large is answered by NULL, as elsewhere, of which a warning tells: that is no report.
SANITIZED = LD_PRELOAD="$(foreach name,asan ubsan stdc++,$(shell $(CXX) -print-file-name=lib$(name).so))" \
	ASAN_OPTIONS="detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=8192:log_path=$(CURDIR)/build/sanitize/$(1).report" \
	UBSAN_OPTIONS=print_stacktrace=1 PYTHONMALLOC=malloc \
	PYTHONPATH="build/sanitize:$$($(RUN) -c 'import sysconfig; print(sysconfig.get_path("platlib"))')" \
	"$$($(RUN) -c 'import sys; print(sys._base_executable)')"

define run_sanitized
	@rm -f build/sanitize/$(1).report.*
	@echo 'pytest $(2), with sanitizers'; $(SANITIZED) -m pytest -q --capture=sys $(2); failed=$$?; \
	reports=$$(grep -lsE 'ERROR|CHECK|runtime error' build/sanitize/$(1).report.*); \
	test -z "$$reports" || { cat $$reports; failed=1; }; exit $$failed
endef

build/sanitize/built: $(VENV)/packages $(VENV)/sources CMakeLists.txt $(NATIVE)
	$(VENV)/bin/cmake -S . -B build/sanitize -G Ninja -DCMAKE_MAKE_PROGRAM=$(abspath $(VENV))/bin/ninja \
		-DPython_EXECUTABLE=$(abspath $(RUN)) -DCMAKE_BUILD_TYPE=Sanitize \
		-DTARVOPY_WERROR=$(or $(TARVOPY_WERROR),OFF) \
		$(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
	$(VENV)/bin/cmake --build build/sanitize
	@touch $@

$(VENV)/bench: $(VENV)/installed
	$(RUN) tools/requirements.py bench > $(VENV)/requirements-bench.txt
	$(RUN) -m pip install --quiet --requirement $(VENV)/requirements-bench.txt
	@touch $@

$(VENV)/docs: $(VENV)/installed
	$(RUN) tools/requirements.py docs > $(VENV)/requirements-docs.txt
	$(RUN) -m pip install --quiet --requirement $(VENV)/requirements-docs.txt
	@touch $@
