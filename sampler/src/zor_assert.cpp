#include "zor_assert.h"
#include "zor_print.h"

#include <cstdlib>

extern "C" void zor_assert_fail(const char* expression, const char* file, int line,
                                const char* function)
{
    quorvex::SafeMessage message;
    message.str("ZOR: ").str(file).str(":").dec(line).str(": ").str(function)
        .str(": Assertion `").str(expression).str("' failed.\n");
    message.writeTo(2);
    abort();
}
