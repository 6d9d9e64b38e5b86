# PGXS build of the kestrava_range_operators extension (C++17).
#
# Builds in the source tree (`make`) and out of it, the way pg_buildext and `dh --with pgxs` do
# (`make -C build -f $src/Makefile VPATH=$src`): every path below is relative to $(srcdir), which
# PGXS sets to the directory of this Makefile. Variables that name files are expanded lazily, after
# PGXS has set srcdir.
EXTENSION   = kestrava_range_operators
# The version that `CREATE EXTENSION` installs, read from the control file (one place to change).
EXTVERSION  = $(shell sed -n "s/^default_version *= *'\(.*\)'/\1/p" $(srcdir)/$(EXTENSION).control)
MODULE_big  = libKestravaPgRangeOperators3_0
OBJS        = $(patsubst $(srcdir)/%.cpp,%.o,$(sort $(wildcard $(srcdir)/pluginimpl/src/*.cpp)))
# The install script of the current version is assembled from the fragments in sql/; the install
# scripts of released versions (frozen, never rebuilt) and the upgrade scripts between versions
# are installed as they are.
DATA_built  = $(EXTENSION)--$(EXTVERSION).sql
DATA        = $(patsubst $(srcdir)/%,%,$(sort $(wildcard $(srcdir)/sql/released/*.sql $(srcdir)/sql/updates/*.sql)))
EXTRA_CLEAN = $(EXTENSION)--$(EXTVERSION).sql build/regress

# `make installcheck` runs the fast, self-contained tests: every test/sql/*.sql except those of the
# extended schedule (test/extended_schedule: memory, torture, cancellation and index page layout,
# slow or needing other extensions), which `make installcheck-extended` runs.
EXTENDED_TESTS = $(shell sed -n 's/^test: *//p' $(srcdir)/test/extended_schedule)
REGRESS      = $(filter-out $(EXTENDED_TESTS),$(sort $(basename $(notdir $(wildcard $(srcdir)/test/sql/*.sql)))))
REGRESS_OPTS = --inputdir=$(srcdir)/test --outputdir=$(CURDIR)/build/regress --load-extension=$(EXTENSION)

PG_CONFIG ?= pg_config
PG_CPPFLAGS = -I$(srcdir)/pluginimpl/inc -I$(srcdir)/common/inc
CXX_LANGUAGE_FLAGS = -std=c++17 -fno-exceptions -fno-rtti
PG_CXXFLAGS = $(CXX_LANGUAGE_FLAGS) -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers
SHLIB_LINK += -lstdc++

# Track header dependencies, so that a changed header rebuilds the objects that include it.
override autodepend = yes

PGXS := $(shell $(PG_CONFIG) --pgxs)
include $(PGXS)

# Out of tree, the objects go to pluginimpl/src under the build directory, which must exist. The
# absolute path keeps make from finding the source tree's directory through VPATH instead.
$(OBJS) $(patsubst %.o,%.bc,$(OBJS)): | $(CURDIR)/pluginimpl/src
$(CURDIR)/pluginimpl/src $(CURDIR)/build/regress:
	mkdir -p $@

# The bitcode goes stale with its object.
$(patsubst %.o,%.bc,$(OBJS)): %.bc: %.o

# The JIT bitcode rule does not see PG_CXXFLAGS; it needs the language flags too.
override BITCODE_CXXFLAGS += $(CXX_LANGUAGE_FLAGS)

# The install script is assembled from the per-family fragments in sql/, in name order; each
# fragment is headed by its path in the source tree, wherever the build runs.
$(EXTENSION)--$(EXTVERSION).sql: $(sort $(wildcard $(srcdir)/sql/*.sql))
	{ echo '-- complain if script is sourced in psql, rather than via CREATE EXTENSION'; \
	  printf '%s\n' '\echo Use "CREATE EXTENSION $(EXTENSION)" to load this file. \quit'; \
	  for f in $^; do echo; echo "-- sql/$${f##*/}"; cat $$f; done; } > $@

installcheck: | $(CURDIR)/build/regress

# The extended schedule, against the same running server as installcheck.
.PHONY: installcheck-extended
installcheck-extended: | $(CURDIR)/build/regress
	$(pg_regress_installcheck) $(REGRESS_OPTS) --schedule=$(srcdir)/test/extended_schedule
