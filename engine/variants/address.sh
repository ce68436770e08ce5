# The engine under AddressSanitizer: recipe.sh's, with these facts changed.

# As part of the compiler's name: libtool would keep the flag away from the linker. The three RTLD flags, which mean
# nothing here, keep the engine from opening extensions with RTLD_DEEPBIND, which the sanitizer refuses.
export CC="gcc -fsanitize=address -fno-omit-frame-pointer -DRTLD_GROUP=0 -DRTLD_WORLD=0 -DRTLD_PARENT=0"
ENGINE_CFLAGS="${ENGINE_CFLAGS/-O2/-O1}"

# What configure and make run of the engine leaves memory behind, which would count as their failure.
export ASAN_OPTIONS=detect_leaks=0
