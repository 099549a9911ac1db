#!/bin/sh
# The sampler's handler files call nothing that may allocate, lock or use
# stdio: lists the unsafe functions that the objects named in the file $1
# (a ;-separated list) refer to, and fails if there is any.
set -eu
unsafe='malloc|calloc|realloc|free|operator new|operator delete|basic_string|to_string|printf|puts|fwrite|strerror|__cxa_allocate_exception|__cxa_throw|pthread_mutex_lock|dlsym|dlopen|getenv|syslog'
found=0
for object in $(tr ';' ' ' < "$1"); do
    calls=$(nm -u -C "$object" | sed 's/^ *U //' | grep -E "(^|[^A-Za-z_])($unsafe)([^A-Za-z_]|$)" || true)
    if [ -n "$calls" ]; then
        echo "$(basename "$object") calls:"
        echo "$calls" | sed 's/^/    /'
        found=1
    fi
done
exit $found
