dnl phpize build: `phpize && ./configure && make && make install`. The sources stand in sources.list, which CMake reads too.

PHP_ARG_ENABLE(zqprof, whether to enable the Quorbit agent,
[  --enable-zqprof         Enable the Quorbit agent])

if test "$PHP_ZQPROF" != "no"; then
  PHP_REQUIRE_CXX()

  AC_PATH_PROG(PKG_CONFIG, pkg-config, no)
  if test "$PKG_CONFIG" = "no" || ! $PKG_CONFIG --exists libcjson; then
    AC_MSG_ERROR([cJSON is needed, and pkg-config to find it (Debian: libcjson-dev pkg-config)])
  fi
  PHP_EVAL_INCLINE(`$PKG_CONFIG --cflags libcjson`)
  PHP_EVAL_LIBLINE(`$PKG_CONFIG --libs libcjson`, ZQPROF_SHARED_LIBADD)

  dnl As system headers: the warnings must judge our code, not the engine's macros.
  for dir in `echo "$INCLUDES" | sed 's/-I//g'`; do
    zqprof_system="$zqprof_system -isystem $dir"
  done
  zqprof_flags="-DCOMPILE_DL_ZQPROF=1 -std=gnu++20 -O2 -g -Wall -Wextra -fno-exceptions -fno-rtti -fno-strict-aliasing dnl
-fvisibility=hidden -fvisibility-inlines-hidden $zqprof_system"
  zqprof_sources=`cat PHP_EXT_SRCDIR(zqprof)/sources.list`
  PHP_NEW_EXTENSION(zqprof, $zqprof_sources, $ext_shared,, $zqprof_flags, yes)

  dnl nodelete: hooks stay installed when the engine unloads its modules. as-needed: no C++ runtime in every process.
  ZQPROF_SHARED_LIBADD="$ZQPROF_SHARED_LIBADD -Wl,-z,nodelete -Wl,--as-needed dnl
-Wl,--version-script=PHP_EXT_SRCDIR(zqprof)/exports.map"
  PHP_SUBST(ZQPROF_SHARED_LIBADD)
fi
