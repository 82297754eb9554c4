# A thin front for the build: every target is one or two commands that can be typed as well.
#
#   make demo            set-up, build, and the main job: the flow of a rendered scene
#   make demo-video      the same of a clip, with the flow as a film beside it
#   make test            set-up, build, tests
#
# Variables: JOBS=n (tests run side by side), WERROR=ON (warnings are errors), CMAKE_ARGS=... (further settings,
# which the build folder remembers), SETUP=true (skip the installation of packages).
JOBS ?= 2
WERROR ?= OFF
CMAKE_ARGS ?=
SETUP ?= scripts/setup.sh

CONFIGURE = cmake -DTARVO_WERROR=$(WERROR) $(CMAKE_ARGS) --preset
CTEST = ctest -j$(JOBS) --preset

.PHONY: all help setup build demo demo-video test sanitize emulated bench python format check-format lint layers install-check reference gpu-check clean
.NOTPARALLEL:

all: build

help:
	@echo 'make build          build with the packages that are there (set-up installs them)'
	@echo 'make demo           set-up, build, flow of a rendered scene and its error; results in build/demo'
	@echo 'make demo-video     set-up, build, a clip of a rendered scene and its flow, build/demo/demo.mp4; needs ffmpeg'
	@echo 'make test           set-up, build, tests'
	@echo 'make bench          set-up, build, benchmarks; results in build/bench'
	@echo 'make sanitize       set-up, tests with address and undefined-behaviour sanitizers'
	@echo 'make emulated       set-up, tests of the CUDA device, its kernels run by the CPU'
	@echo 'make python         set-up, Python package as users get it, its tests; the wheel is in build/python'
	@echo 'make format         format the sources      make check-format   say which are not'
	@echo 'make lint           clang-tidy and the check that inner loops are vectorised'
	@echo 'make layers         check which part of the sources includes which'
	@echo 'make install-check  install into a temporary folder and build a program against it'
	@echo 'make reference      the public headers as HTML, by doxygen; in build/reference/html'
	@echo 'make gpu-check      build, test and measure on a machine with CUDA'
	@echo 'make clean          remove build/'

setup:
	@$(SETUP)

build:
	$(CONFIGURE) release
	cmake --build --preset release

demo: setup build
	@scripts/demo.sh

demo-video: setup build
	@scripts/demo_video.sh

test: setup build
	$(CTEST) release

sanitize: setup
	$(CONFIGURE) sanitize
	cmake --build --preset sanitize
	$(CTEST) sanitize

emulated: setup
	$(CONFIGURE) emulated
	cmake --build --preset emulated
	$(CTEST) emulated

bench: setup
	@scripts/bench.sh $(CMAKE_ARGS)

format:
	@scripts/format.sh

check-format:
	@scripts/format.sh --check

lint:
	@scripts/lint.sh
	@scripts/check_vectorised.sh

layers:
	@tests/layers/check_layers.sh .

python: setup
	@scripts/setup.sh --python
	@scripts/python_package.sh

install-check: build
	@tests/install/run.sh build

reference:
	@mkdir -p build/reference
	@TARVO_VERSION=$$(sed -n 's/^project(tarvo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt) doxygen cmake/Doxyfile

gpu-check:
	@scripts/gpu_check.sh

clean:
	rm -rf build
