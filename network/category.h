// What a function or a thread is, as far as the profiler sorts them.
#ifndef ZOR_CATEGORY_H
#define ZOR_CATEGORY_H

#include <QHash>

class Category
{
public:
    // The OpenMP runtimes that the profiler tells apart.
    struct OmpCompiler {
        enum Enum { Unknown = 0, Gnu = 1, Intel = 2, Llvm = 3, Cray = 4, Nvidia = 5 };
    };
};

inline uint qHash(Category::OmpCompiler::Enum value, uint seed = 0)
{
    return ::qHash(static_cast<int>(value), seed);
}

#endif
