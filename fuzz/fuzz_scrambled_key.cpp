// Key unscrambling with arbitrary text: one draw per pair, and a result only when
// the bytes are UTF-8.
#include "FuzzSupport.h"

#include "net/ZDDigest_p.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString key = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    if (key.isEmpty())
        return 0; // a precondition failure by contract
    long draws = 0;
    const auto result =
        zdScrambledKeyWithGenerator(key, [&draws] { return 1103515245L * ++draws; });
    FUZZ_CHECK(draws == key.size() / 2);
    if (result)
        FUZZ_CHECK(result->toUtf8().size() <= draws);
    return 0;
}
