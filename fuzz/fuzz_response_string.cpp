// Response-string parsing with arbitrary text and separators: keys are never
// empty and never start with white space, values are never empty, and with no
// unescaping every key and value appears in the input.
#include "FuzzSupport.h"

#include "net/ZDAdditions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const size_t separatorLength = data[0] % 4;
    if (size < 1 + separatorLength)
        return 0;
    const auto text = [](const uint8_t *bytes, size_t length) {
        return QString::fromUtf8(reinterpret_cast<const char *>(bytes), qsizetype(length));
    };
    const QString separator = text(data + 1, separatorLength);
    const QString response = text(data + 1 + separatorLength, size - 1 - separatorLength);
    const auto pairs =
        ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(response, separator, false);
    for (auto it = pairs.cbegin(); it != pairs.cend(); ++it) {
        FUZZ_CHECK(!it.key().isEmpty() && !it.key().front().isSpace());
        FUZZ_CHECK(!it.key().contains(u'='));
        FUZZ_CHECK(!it.value().isEmpty() && !it.value().contains(u'\n'));
        FUZZ_CHECK(response.contains(it.key()) && response.contains(it.value()));
    }
    // Unescaping is a fault only for malformed escapes; values without "%" decode.
    if (!response.contains(u'%'))
        FUZZ_CHECK(ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(
                       response, separator, true) == pairs);
    return 0;
}
