#include "RenderCommand.h"

#include "base/HarluneError.h"
#include "core/AudioContentBuilder.h"
#include "editor/EditorModel.h"
#include "io/AudioDecoder.h"
#include "ui/TimelineDrawing.h"

#include <QGuiApplication>
#include <QStringList>
#include <cstdio>
#include <cstring>
#include <exception>

namespace harlune {
namespace {

struct RenderRequest {
    QString output;
    QString input;
    double width = 1600;
    double height = 400;
    std::optional<std::pair<double, double>> range;
    double scale = 1;
    bool dark = false;
};

std::optional<RenderRequest> parse(const QStringList& arguments, QString& error) {
    RenderRequest request;
    QStringList positional;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        const auto value = [&]() -> std::optional<QString> {
            if (i + 1 >= arguments.size())
                return std::nullopt;
            return arguments[++i];
        };
        bool ok = true;
        if (argument == QLatin1String("--size")) {
            const auto text = value();
            const QStringList parts = text ? text->split(QLatin1Char('x')) : QStringList();
            bool okW = false, okH = false;
            if (parts.size() == 2) {
                request.width = parts[0].toDouble(&okW);
                request.height = parts[1].toDouble(&okH);
            }
            ok = okW && okH && request.width >= 1 && request.height >= 1 && request.width <= 30000 &&
                 request.height <= 30000;
            if (!ok)
                error = QStringLiteral("--size takes WxH in points, such as 1600x400");
        } else if (argument == QLatin1String("--range")) {
            const auto text = value();
            const QStringList parts = text ? text->split(QLatin1Char(':')) : QStringList();
            bool okStart = false, okEnd = false;
            if (parts.size() == 2)
                request.range = std::pair(parts[0].toDouble(&okStart), parts[1].toDouble(&okEnd));
            ok =
                okStart && okEnd && request.range->first >= 0 && request.range->second > request.range->first;
            if (!ok)
                error = QStringLiteral("--range takes START:END in seconds, with END after START");
        } else if (argument == QLatin1String("--dpr")) {
            const auto text = value();
            request.scale = text ? text->toDouble(&ok) : 0;
            ok = ok && request.scale >= 0.5 && request.scale <= 8;
            if (!ok)
                error = QStringLiteral("--dpr takes a ratio from 0.5 to 8");
        } else if (argument == QLatin1String("--dark")) {
            request.dark = true;
        } else if (argument.startsWith(QLatin1String("--"))) {
            error = QStringLiteral("unknown option %1").arg(argument);
            ok = false;
        } else {
            positional << argument;
        }
        if (!ok)
            return std::nullopt;
    }
    if (positional.size() != 2) {
        error = QStringLiteral("usage: harlune --render OUT.png FILE [--size WxH] [--range START:END] "
                               "[--dpr R] [--dark]");
        return std::nullopt;
    }
    request.output = positional[0];
    request.input = positional[1];
    return request;
}

AudioContent load(const QString& path) {
    std::optional<AudioContentBuilder> builder;
    AudioDecoder::decode(
        path.toStdString(), std::nullopt,
        [&](const AudioFileInfo& info) { builder.emplace(info.channelCount, info.sampleRate); },
        [&](ChunkViews chunk) { builder->append(chunk); });
    if (!builder)
        throw HarluneError::decodeFailed("The file holds no audio.");
    return builder->build();
}

} // namespace

std::optional<int> runRenderCommand(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "--render") != 0)
        return std::nullopt;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    QString error;
    const std::optional<RenderRequest> request = parse(QGuiApplication::arguments().mid(2), error);
    if (!request) {
        std::fprintf(stderr, "harlune: %s\n", qPrintable(error));
        return 2;
    }
    try {
        EditorModel model(load(request->input), std::nullopt);
        // A picture of the waveform: no loudness lane, whatever the preferences say.
        model.setShowLoudnessLane(false);
        model.setViewWidth(request->width);
        model.setCursor(0);
        if (request->range) {
            // Exactly the span, edge to edge.
            const double rate = model.content().sampleRate();
            model.setFramesPerPoint((request->range->second - request->range->first) * rate / request->width);
            model.setScrollFrame(request->range->first * rate);
        } else {
            model.zoomToFit();
        }
        const QImage image =
            renderTimeline(model, {request->width, request->height, request->scale, request->dark, {}});
        if (!image.save(request->output, "PNG")) {
            std::fprintf(stderr, "harlune: cannot write %s\n", qPrintable(request->output));
            return 1;
        }
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "harlune: %s\n", failure.what());
        return 1;
    }
}

} // namespace harlune
