# The engine under ThreadSanitizer: recipe.sh's, with these facts changed. It runs embedded only, and has only what the pages
# of that run need.
export CC="gcc -fsanitize=thread -fno-omit-frame-pointer"
ENGINE_CFLAGS="${ENGINE_CFLAGS/-O2/-O1}"
ENGINE_CONFIGURE="
  --enable-maintainer-zts --enable-embed=shared --disable-all --enable-cli --disable-cgi --disable-phpdbg
  --enable-json --enable-pdo --with-sqlite3 --with-pdo-sqlite --with-curl=CURL_LINKS"
APACHE_CONFIGURE=
ENGINE_PARTS="bin/php bin/php-config bin/phpize lib/libphp5.so"

# What configure runs of the engine must end as it would without the sanitizer.
export TSAN_OPTIONS=report_bugs=0:exitcode=0
