/* The one place that includes the engine's headers, and the integer types that the agent's structures use.
 *
 * The engine's headers come in as system headers, so that their warnings are not ours. Its snprintf macros are taken
 * back: they stand for the engine's own formatter, which prints "1.0e+100" where the agent's formats want libc's text.
 */
#ifndef ZQP_TYPES_H
#define ZQP_TYPES_H

#ifdef HAVE_CONFIG_H
#include "config.h"
#endif

#include <math.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <bit>

extern "C" {
#include "zend.h" /* zend_alloc.h, below it, leaves its heap functions without C linkage */
}
#include "php.h"
#include "php_ini.h"
#include "php_main.h"
#include "php_globals.h"
#include "php_output.h"
#include "php_streams.h"
#include "SAPI.h"
#include "spprintf.h"
#include "zend_builtin_functions.h"
#include "zend_exceptions.h"
#include "zend_extensions.h"
#include "zend_generators.h"
#include "zend_interfaces.h"
#include "zend_llist.h"
extern "C" {
#include "ext/standard/file.h"
#include "ext/standard/info.h"
#include "ext/standard/php_smart_str.h"
}

#undef snprintf
#undef vsnprintf

#if ZEND_MODULE_API_NO != 20131226 || !defined(ZTS)
#error "the agent is written for PHP 5.6, thread-safe build (API20131226,TS)"
#endif

/* Agent and daemon are on one host, and write some numbers as its memory has them: both are for little-endian ones. */
static_assert(std::endian::native == std::endian::little);

typedef uint64_t uint64;

#endif
