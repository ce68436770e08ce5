# How the engine is built: the facts only, sourced by engine/build. Any change here, comments included,
# gives the cache another key and so another build.

# PHP 5.6.15's source comes inside this npm package; no registry carries it as such.
SOURCE_PACKAGE="php-embed@0.5.3"
SOURCE_MEMBER="package/deps/php-5.6.15.tar.gz"
SOURCE_SHA256="bb2d4c226a4897b7c3659c2538a87aef7ec104f58f5ae930a263dd77fb8ebc40"

# -fcommon, gnu99: the source is older than gcc 10's and gcc 5's defaults.
# -fno-strict-aliasing: the engine reads its containers through casts.
ENGINE_CFLAGS="-O2 -g -w -fcommon -std=gnu99 -fno-strict-aliasing"

# No openssl: 5.6 predates OpenSSL 3. mysqlnd needs no client library.
# CURL_LINKS stands for a folder with include/ and lib/; Debian keeps curl's headers in its multiarch folder,
# where this configure does not look.
ENGINE_CONFIGURE="
  --enable-maintainer-zts --enable-embed=shared --enable-cli --enable-cgi --enable-fpm
  --with-mysql=mysqlnd --with-mysqli=mysqlnd --with-pdo-mysql=mysqlnd
  --with-pgsql --with-pdo-pgsql --with-curl=CURL_LINKS
  --enable-soap --enable-sockets --enable-pcntl --enable-mbstring
  --with-zlib --without-pear --disable-phpdbg"

# One tree builds libphp5.so either for embedding or for Apache: the Apache module has a small tree of its own.
APACHE_CONFIGURE="
  --enable-maintainer-zts --with-apxs2
  --disable-all --disable-cli --disable-cgi --enable-json --enable-session"
