#include <host/slotname.h>

#include <gtest/gtest.h>

using namespace Brevane::Kvo;

namespace {

QString s(const char *text)
{
    return QString::fromLatin1(text);
}

} // namespace

TEST(SlotName, TakesTypeAndNameApart)
{
    const SlotName name = SlotName::parse(s("Kvo_KvoTexture*_Frame"));
    EXPECT_EQ(name.type, s("KvoTexture*"));
    EXPECT_EQ(name.name, s("Frame"));
    EXPECT_EQ(name.elementType, QString());
}

TEST(SlotName, KeepsUnderscoresOfTheNamePart)
{
    const SlotName name = SlotName::parse(s("Kvo_Bool_ViewportScale_Enable"));
    EXPECT_EQ(name.type, s("Bool"));
    EXPECT_EQ(name.name, s("ViewportScale_Enable"));
}

TEST(SlotName, TakesTheElementTypeOfAListApart)
{
    const SlotName lights = SlotName::parse(s("Kvo_QList_KvoShadowMapManagerLight*_Lights"));
    EXPECT_EQ(lights.type, s("QList"));
    EXPECT_EQ(lights.elementType, s("KvoShadowMapManagerLight*"));
    EXPECT_EQ(lights.name, s("Lights"));

    const SlotName plain = SlotName::parse(s("Kvo_QList_InstanceData"));
    EXPECT_EQ(plain.elementType, QString());
    EXPECT_EQ(plain.name, s("InstanceData"));
}

TEST(SlotName, OfTheBlendModeSaysItsTypeInItsOwnWay)
{
    const SlotName name = SlotName::parse(s("Int_BlendMode"));
    EXPECT_EQ(name.type, s("int"));
    EXPECT_EQ(name.name, s("BlendMode"));
    EXPECT_TRUE(slotTypesMatch(s("Int_BlendMode"), s("Kvo_int_Mode")));
    EXPECT_FALSE(slotTypesMatch(s("Int_BlendMode"), s("Kvo_float_Gain")));
}

TEST(SlotName, TakesANameWithoutPrefixAsItIs)
{
    for (const char *text : {"brightness", "Int_", "", "Kvo_", "Kvo_float"}) {
        const SlotName name = SlotName::parse(s(text));
        EXPECT_EQ(name.type, QString()) << text;
        EXPECT_EQ(name.name, s(text));
    }
}

TEST(SlotTypesMatch, SpellingsOfOneTypeAgree)
{
    EXPECT_TRUE(slotTypesMatch(s("Kvo_float_A"), s("Kvo_Float_B")));
    EXPECT_TRUE(slotTypesMatch(s("Kvo_bool_A"), s("Kvo_Bool_B")));
    EXPECT_TRUE(slotTypesMatch(s("Kvo_string_A"), s("Kvo_QString_B")));
    EXPECT_TRUE(slotTypesMatch(s("Kvo_KvoTexture*_A"), s("Kvo_KvoTexture*_B")));
}

TEST(SlotTypesMatch, DifferentTypesDoNot)
{
    EXPECT_FALSE(slotTypesMatch(s("Kvo_KvoTexture*_A"), s("Kvo_QRect_B")));
    EXPECT_FALSE(slotTypesMatch(s("Kvo_KvoTexture*_A"), s("Kvo_KvoFramebuffer*_B")));
    EXPECT_FALSE(slotTypesMatch(s("Kvo_float_A"), s("Kvo_bool_B")));
}

TEST(SlotTypesMatch, UnknownTypesAndVariantsFitAll)
{
    EXPECT_TRUE(slotTypesMatch(s("brightness"), s("Kvo_float_averageLuminance")));
    EXPECT_TRUE(slotTypesMatch(s("Kvo_QVariant_Rects"), s("Kvo_QRect_Viewport")));
}

TEST(NearestName, FindsSlipsOfTheFinger)
{
    const QStringList names{s("Viewport"), s("ColorTop"), s("ColorBottom"), s("GradientRenderPass")};
    EXPECT_EQ(nearestName(s("Viewprt"), names), s("Viewport"));
    EXPECT_EQ(nearestName(s("viewport"), names), s("Viewport"));
    EXPECT_EQ(nearestName(s("Veiwport"), names), s("Viewport"));
    EXPECT_EQ(nearestName(s("ColourTop"), names), s("ColorTop"));
    EXPECT_EQ(nearestName(s("ColorBotom"), names), s("ColorBottom"));
}

TEST(NearestName, FindsNamesWithAPieceLeftOut)
{
    const QStringList names{s("ModelRenderPass"), s("GradientRenderPass")};
    EXPECT_EQ(nearestName(s("GradientPass"), names), s("GradientRenderPass"));
    EXPECT_EQ(nearestName(s("Gradient"), names), s("GradientRenderPass"));
    EXPECT_EQ(nearestName(s("gradientrenderpass"), names), s("GradientRenderPass"));
}

TEST(NearestName, IsSilentWhenNothingIsNear)
{
    EXPECT_EQ(nearestName(s("Shadow"), {s("Viewport"), s("Texture")}), QString());
    EXPECT_EQ(nearestName(s("C"), {s("B")}), QString());
    EXPECT_EQ(nearestName(s("x"), {}), QString());
    EXPECT_EQ(nearestNameHint(s("x"), {s("Viewport")}), QString());
    EXPECT_EQ(nearestNameHint(s("Viewpor"), {s("Viewport")}), s("; did you mean 'Viewport'?"));
    const QStringList classes{s("GaussianBlurRenderPass"), s("GBufferRenderPass"), s("SMAARenderPass")};
    for (const char *beginning : {"Gausian", "gaussian", "GaussianBlr"})
        EXPECT_EQ(nearestNameHint(s(beginning), classes), s("; did you mean 'GaussianBlurRenderPass'?")) << beginning;
    for (const char *other : {"", "Glow", "Bloom", "Gassoline"})
        EXPECT_EQ(nearestNameHint(s(other), classes), QString()) << other;
}
