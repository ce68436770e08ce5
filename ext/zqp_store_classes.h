/* The classes of caches and document stores, by the names that their calls have in a trace; free of the engine: the
 * daemon tells by them what a slow call counts for. docs/queries.md names them, which a unit test compares.
 */
#ifndef ZQP_STORE_CLASSES_H
#define ZQP_STORE_CLASSES_H

#include <algorithm>
#include <string_view>

inline constexpr std::string_view zq_store_classes[] = {"Memcache", "MemcachePool", "Memcached", "MongoCollection",
	"MongoCursor", "MongoDB", "MongoDB\\Driver\\Manager", "Predis\\Client", "Predis\\Pipeline\\Pipeline",
	"Predis\\Transaction\\MultiExec", "Redis", "RedisCluster", "yii\\redis\\Connection"};

/* True for the exact name of such a class. */
constexpr bool zq_is_store_class(std::string_view name)
{
	return std::ranges::find(zq_store_classes, name) != std::end(zq_store_classes);
}

#endif
