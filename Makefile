# The verbs. CMake builds, scripts do the rest.

BUILD_JOBS ?= $(shell nproc)
CMAKE_FLAGS := $(if $(ZQ_TRACER_FLOOR_US),-DZQ_TRACER_FLOOR_US=$(ZQ_TRACER_FLOOR_US))

.PHONY: all configure
all: configure
	@cmake --build build -j$(BUILD_JOBS)

configure:
	@cmake -S . -B build --log-level=WARNING $(CMAKE_FLAGS)
