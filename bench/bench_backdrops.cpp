// Backdrops, loaders and the programmable pass against the same draws in bare GL, and what a first frame
// of the loaders costs.
//
//   bench_backdrops [--benchmark_out=FILE --benchmark_out_format=json]

#include "benchmain.h"
#include "subject.h"

#include "support/draw.h"
#include "support/imagefiles.h"

#include <gl/texture.h>
#include <gl/texturemanager.h>
#include <renderpasses/backgroundimagerenderpass.h>
#include <renderpasses/cubemaploaderrenderpass.h>
#include <renderpasses/shaderrenderpass.h>
#include <renderpasses/skyboxrenderpass.h>
#include <renderpasses/textureloaderrenderpass.h>

#include <QColor>
#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Bench;

namespace {

std::unique_ptr<Texture> linearTexture(int width, int height)
{
    Test::Image<float> image(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.at(x, y) = {float(x % 7) / 7, float(y % 5) / 5, 0.5f, float(x) / float(width) * 4};
    auto texture = Test::makeTexture(image);
    texture->bind();
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    texture->unbind();
    return texture;
}

/// The passes of this family at one size.
class Backdrops
{
public:
    Backdrops(int width, int height)
        : frame(linearTexture(width, height)), map(linearTexture(512, 256)), _width(width), _height(height)
    {
        const QRect viewport(0, 0, width, height);
        QMatrix4x4 camera;
        camera.rotate(30, 1, 1, 0);
        QMatrix4x4 projection;
        projection.perspective(60, float(width) / float(height), 0.1f, 100);
        const QString image = files.write("image.png", Test::ImageFiles::pattern(256, 256));
        for (int face = 0; face < 6; ++face)
            cubemapLoader.setInput(face, image);
        loader.setInput(0, image);
        frameOf(cubemapLoader);
        for (SkyboxRenderPass *sky : {&cubeSky, &latLongSky, &backgroundSky}) {
            sky->setInput(0, viewport);
            sky->setInput(1, QVariant::fromValue(projection));
            sky->setInput(2, QVariant::fromValue(camera));
        }
        cubeSky.setInput(3, cubemapLoader.output(0));
        latLongSky.setInput(4, textureToVariant(map.get()));
        backgroundSky.setInput(5, textureToVariant(map.get()));
        fade.setInput(0, viewport);
        fade.setInput(1, textureToVariant(frame.get()));
        fade.setInput(3, image);
        fade.setInput(4, image);
        fade.setInput(5, 0.4f);
        fade.setInput(6, 0.6f);
        fade.setInput(7, textureToVariant(frame.get()));
        fade.setInput(8, 1);
        fade.setInput(9, 0.5f);
        shader.addInput(QStringLiteral("Kvo_KvoTexture*_Input"), textureToVariant(frame.get()));
        shader.addInput(QStringLiteral("tint"), QColor(200, 100, 50));
        shader.addInput(QStringLiteral("gain"), 0.5f);
        shader.addOutput(QStringLiteral("Kvo_KvoTexture*_Frame"));
        shader.setFragmentShaderSource(QStringLiteral(
            "#version 150\nuniform sampler2D u_Input;\nuniform vec4 tint;\nuniform float gain;\nin vec2 vo_TexCoord;\n"
            "out vec4 o_Frame;\nvoid main() { o_Frame = gain * tint * texture(u_Input, vo_TexCoord); }\n"));
        shader.setInput(0, viewport);
    }

    void addTo(std::vector<Subject> &subjects)
    {
        const std::string size = QString::asprintf("/%dx%d", _width, _height).toStdString();
        const auto add = [&](const char *name, RenderPass &pass) {
            subjects.push_back({name + size, &pass, _width, _height});
        };
        add("SkyboxRenderPass cube map", cubeSky);
        add("SkyboxRenderPass latitude-longitude", latLongSky);
        add("SkyboxRenderPass background", backgroundSky);
        add("BackgroundImageRenderPass", fade);
        add("ShaderRenderPass", shader);
        // These draw nothing: a steady frame makes no GL call at all.
        add("TextureLoaderRenderPass", loader);
        add("CubemapLoaderRenderPass", cubemapLoader);
    }

    Test::ImageFiles files;
    std::unique_ptr<Texture> frame;
    std::unique_ptr<Texture> map;
    CubemapLoaderRenderPass cubemapLoader;
    TextureLoaderRenderPass loader;
    SkyboxRenderPass cubeSky;
    SkyboxRenderPass latLongSky;
    SkyboxRenderPass backgroundSky;
    BackgroundImageRenderPass fade;
    ShaderRenderPass shader;

private:
    static void frameOf(RenderPass &pass) { Bench::frame(pass); }

    int _width;
    int _height;
};

// A file of its own for each time, so that nothing is remembered.
void reportLoading()
{
    const Test::ImageFiles files;
    constexpr int kTimes = 12;
    QImage image;
    std::vector<double> decoding, loading;
    for (int i = 0; i < kTimes; ++i) {
        const QString name = QStringLiteral("image%1.png").arg(i);
        const QString path = files.write(qPrintable(name), Test::ImageFiles::pattern(1024, 1024, i));
        TextureLoaderRenderPass pass;
        pass.setInput(0, path);
        decoding.push_back(secondsOf([&] { image = QImage(path).mirrored(); }));
        loading.push_back(secondsOf([&] { frame(pass); }));
    }
    std::printf("\na new image of 1024x1024: %.1f ms, of which Qt takes %.1f ms to read and flip it\n",
                1e3 * median(loading), 1e3 * median(decoding));
}

void run()
{
    std::vector<Subject> subjects;
    Backdrops large(1280, 720);
    Backdrops small(1, 1);
    large.addTo(subjects);
    small.addTo(subjects);
    registerAll(subjects);
    benchmark::RunSpecifiedBenchmarks();
    std::printf("\nper steady frame; ");
    printTable(subjects);
    reportLoading();
}

} // namespace

int main(int argc, char **argv)
{
    return runInContext(argc, argv, run);
}
