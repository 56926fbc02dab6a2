#pragma once

#include "support/draw.h"
#include "support/passes.h"
#include "support/passtable.h"
#include "support/scenes.h"

#include <host/lights.h>
#include <host/slotname.h>
#include <renderpasses/primitivebuilderrenderpass.h>
#include <renderpasses/visibilitybufferrenderpass.h>

#include <epoxy/gl.h>

#include <memory>
#include <vector>

namespace Brevane::Kvo::Test {

inline constexpr int kWidth = 16;
inline constexpr int kHeight = 12;
inline const QRect kViewport(0, 0, kWidth, kHeight);

inline QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

struct WrongValue
{
    const char *name;
    QVariant value;
};

/// Values that fit every slot of the library, and some that fit none. Needs a current context.
class Values
{
public:
    Values()
    {
        EXPECT_TRUE(model.upload(cubeScene()));
        builder.addCube(1, {});
        runFrame(builder);
        cubemap.setTarget(GL_TEXTURE_CUBE_MAP);
        EXPECT_TRUE(cubemap.bind());
        const quint32 texel = 0xff336699;
        for (GLenum face = 0; face < 6; ++face)
            glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 1, 1, 0, GL_BGRA, GL_UNSIGNED_BYTE,
                         &texel);
        glTexParameteri(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        cubemap.unbind();
    }

    /// An output of a pass that records fragments.
    QVariant recorded(int output)
    {
        if (!record) {
            record = std::make_unique<VisibilityBufferRenderPass>();
            record->setInput(0, kViewport);
            record->setInput(1, perspective());
            record->setInput(2, cameraAt(4));
            record->setInput(3, QVariant::fromValue(&model));
            runFrame(*record);
        }
        return record->output(output);
    }

    /// A value as a slot of that name and type takes it.
    QVariant right(const InputRow &row)
    {
        const SlotName name = SlotName::parse(text(row.name));
        const QString &last = name.name;
        if (row.type == QMetaType::fromType<Texture *>()) {
            Texture *texture = color.get();
            if (last == text("HeadPointers"))
                return recorded(0);
            if (last == text("NodeBuffer"))
                return recorded(1);
            if (last == text("Depth") || last == text("Stencil"))
                texture = target.depthStencil();
            else if (last == text("Cubemap"))
                texture = &cubemap;
            else if (last == text("TextureOut") || last == text("Frame"))
                texture = target.color();
            return textureToVariant(texture);
        }
        if (row.type == QMetaType::fromType<GPUModel *>())
            return QVariant::fromValue(&model);
        if (row.type == QMetaType::fromType<DrawBuffers *>())
            return builder.output(0);
        if (row.type == QMetaType::fromType<FramebufferObject *>())
            return framebufferToVariant(screen.framebuffer());
        if (last == text("ShadowMapData"))
            return {}; // the records of shadow passes are other tests' affair
        if (last == text("NodeBufferWidth"))
            return recorded(2);
        if (last == text("ProjectionMatrix"))
            return perspective();
        if (last == text("CameraMatrix"))
            return cameraAt(4);
        if (last == text("Lights"))
            return lightsToVariant({ShadowMapLight::directional({1, -2, -1})});
        if (last == text("MapSize"))
            return QSize(kWidth, kHeight);
        if (last == text("SceneBoundsMax"))
            return QVector3D(1, 1, 1);
        if (last == text("SceneBoundsMin"))
            return QVector3D(-1, -1, -1);
        if (last == text("Rects"))
            return kViewport;
        if (row.defaultValue.isValid())
            return row.defaultValue;
        if (last == text("Dirty"))
            return true;
        switch (row.type.id()) {
        case QMetaType::QRect: return kViewport;
        case QMetaType::Float: return 2.0f;
        case QMetaType::Int: return 1;
        case QMetaType::Bool: return false;
        case QMetaType::QColor: return QColor(Qt::red);
        case QMetaType::QVector2D: return QVector2D(0.5f, 0.5f);
        case QMetaType::QVariantList: return QVariantList();
        case QMetaType::QString: return text(KVO_SOURCE_DIR "/pipelines/images/matcap.png");
        default: break;
        }
        ADD_FAILURE() << "no value for " << row.name;
        return {};
    }

    /// The model of glass.
    GPUModel &glass()
    {
        if (!_glass) {
            _glass = std::make_unique<GPUModel>();
            ModelData data = cubeScene();
            for (ModelMaterial &material : data.materials)
                material.D = 0.5f;
            EXPECT_TRUE(_glass->upload(data));
        }
        return *_glass;
    }

    std::vector<WrongValue> wrong()
    {
        return {{"text", text("x")},
                {"number", 3},
                {"foreign object", QVariant::fromValue<QObject *>(&foreign)},
                {"null texture", QVariant::fromValue<Texture *>(nullptr)}};
    }

    std::unique_ptr<Texture> color = makeSolidTexture(kWidth, kHeight, {0.2f, 0.4f, 0.6f, 1.0f});
    Target target{GL_RGBA8, kWidth, kHeight, true};
    Target screen{GL_RGBA8, kWidth, kHeight};
    Texture cubemap;
    GPUModel model;
    std::unique_ptr<VisibilityBufferRenderPass> record;
    PrimitiveBuilderRenderPass builder;
    QObject foreign;

private:
    std::unique_ptr<GPUModel> _glass;
};

} // namespace Brevane::Kvo::Test
