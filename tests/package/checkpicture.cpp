// Whether the picture of an example shows what it should: checkpicture FILE WIDTH HEIGHT TONES
//
// The size; a backdrop at the sides; something else around the middle, in so many tones at least.

#include <QColor>
#include <QImage>
#include <QSet>

#include <cstdio>
#include <cstdlib>

namespace {

int distance(QRgb a, QRgb b)
{
    return std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) + std::abs(qBlue(a) - qBlue(b));
}

} // namespace

int main(int argc, char **argv)
{
    const QImage image = argc == 5 ? QImage(QString::fromLocal8Bit(argv[1])) : QImage();
    if (argc != 5 || image.isNull() || image.width() != std::atoi(argv[2]) || image.height() != std::atoi(argv[3])) {
        std::fprintf(stderr, "checkpicture: %s is no picture of that size\n", argc > 1 ? argv[1] : "nothing");
        return 1;
    }
    QSet<QRgb> tones;
    int model = 0;
    double centre[2] = {};
    for (int y = 0; y < image.height(); ++y) {
        // The backdrop of a row is what its ends show.
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = image.pixel(x, y);
            if (distance(pixel, image.pixel(0, y)) < 30 || distance(pixel, image.pixel(image.width() - 1, y)) < 30)
                continue;
            ++model;
            centre[0] += double(x) / image.width();
            centre[1] += double(y) / image.height();
            tones.insert(pixel);
        }
    }
    const double share = double(model) / double(image.width() * image.height());
    const auto isCentral = [&](double sum) { return model > 0 && sum / model > 0.3 && sum / model < 0.7; };
    const bool isRight = share > 0.08 && share < 0.9 && tones.size() >= std::atoi(argv[4]) && isCentral(centre[0])
                         && isCentral(centre[1]);
    std::printf("checkpicture: %s: a model on %.0f %% of it, in %d tones%s\n", argv[1], 100 * share, int(tones.size()),
                isRight ? "" : ": that is not right");
    return isRight ? 0 : 1;
}
