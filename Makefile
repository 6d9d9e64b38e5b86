# PGXS build of the kestrava_range_operators extension (C++17).
EXTENSION   = kestrava_range_operators
EXTVERSION  = 3.2.13
MODULE_big  = libKestravaPgRangeOperators3_0
OBJS        = $(patsubst %.cpp,%.o,$(sort $(wildcard pluginimpl/src/*.cpp)))
DATA_built  = $(EXTENSION)--$(EXTVERSION).sql
EXTRA_CLEAN = $(EXTENSION)--$(EXTVERSION).sql build/regress

# Every test/sql/*.sql is a regression test, run in name order.
REGRESS      = $(sort $(basename $(notdir $(wildcard test/sql/*.sql))))
REGRESS_OPTS = --inputdir=test --outputdir=build/regress --load-extension=kestrava_range_operators

PG_CONFIG ?= pg_config
PG_CPPFLAGS = -I$(CURDIR)/pluginimpl/inc -I$(CURDIR)/common/inc
CXX_LANGUAGE_FLAGS = -std=c++17 -fno-exceptions -fno-rtti
PG_CXXFLAGS = $(CXX_LANGUAGE_FLAGS) -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers
SHLIB_LINK += -lstdc++

# Track header dependencies, so that a changed header rebuilds the objects that include it.
override autodepend = yes

PGXS := $(shell $(PG_CONFIG) --pgxs)
include $(PGXS)

# The bitcode goes stale with its object.
$(patsubst %.o,%.bc,$(OBJS)): %.bc: %.o

# The JIT bitcode rule does not see PG_CXXFLAGS; it needs the language flags too.
override BITCODE_CXXFLAGS += $(CXX_LANGUAGE_FLAGS)

# The install script is assembled from the per-family fragments in sql/.
$(EXTENSION)--$(EXTVERSION).sql: $(sort $(wildcard sql/*.sql))
	{ echo '-- complain if script is sourced in psql, rather than via CREATE EXTENSION'; \
	  printf '%s\n' '\echo Use "CREATE EXTENSION $(EXTENSION)" to load this file. \quit'; \
	  for f in $^; do echo; echo "-- $$f"; cat $$f; done; } > $@

installcheck: | build/regress
build/regress:
	mkdir -p $@
