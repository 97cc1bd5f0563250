// Building a multipart body that holds one 256 MiB file part, against a plain
// copy of the same bytes (the floor); peak memory of each in a child process.
#include "BenchSupport.h"

#include "net/ZDFileUpload.h"
#include "net/ZDMultipart_p.h"

#include <cstring>

int main()
{
    constexpr qsizetype kSize = qsizetype(256) << 20;
    const QString boundary = QStringLiteral("6B29FC40-CA47-1067-B31D-00DD010662DA");
    ZDFileUpload upload;
    QVariantMap params;
    const auto prepare = [&] {
        upload.setName(QStringLiteral("clip.mov"));
        upload.setData(bench::randomBytes(kSize, 4));
        params = {{QStringLiteral("title"), QStringLiteral("Trip")},
                  {QStringLiteral("video"), QVariant::fromValue(upload)}};
    };
    qsizetype sink = 0;
    const bench::ChildResult build = bench::inChild(prepare, [&] {
        const QByteArray body = zdMultipartParamData(params, boundary);
        sink = body.size();
        return body.size() > kSize;
    });
    const bench::ChildResult copy = bench::inChild(prepare, [&] {
        const QByteArray source = upload.data();
        QByteArray target(kSize, Qt::Uninitialized);
        std::memcpy(target.data(), source.constData(), size_t(kSize));
        return target.size() == kSize;
    });
    if (!build.ok || !copy.ok)
        return 1;
    bench::report("multipart_build_256MiB", build.seconds * 1000, "ms");
    bench::report("multipart_copy_floor_256MiB", copy.seconds * 1000, "ms");
    bench::report("multipart_ratio_build_to_copy", build.seconds / copy.seconds, "x");
    bench::report("multipart_peak_rss", build.peakMiB, "MiB");
    bench::report("multipart_peak_rss_above_file_data", build.peakMiB - build.baseMiB, "MiB");
    bench::report("copy_peak_rss_above_file_data", copy.peakMiB - copy.baseMiB, "MiB");
    return 0;
}
