#include <host/slotvalue.h>

#include <core/slotinfo.h>

#include <QColor>
#include <QMatrix4x4>
#include <QRect>
#include <QSize>
#include <QVector2D>
#include <QVector3D>

#include <gtest/gtest.h>

#include <limits>

using namespace Brevane::Kvo;

namespace {

// The value of a text; fails the test where the text does not fit.
QVariant parsed(const char *slot, const char *text, const QVariant &hint = QVariant(), const SlotInfo *info = nullptr)
{
    QVariant value;
    QString error;
    EXPECT_TRUE(parseSlotValue(QString::fromLatin1(slot), QString::fromUtf8(text), &value, &error, hint, info))
        << qPrintable(error);
    return value;
}

QString errorOf(const char *slot, const char *text, const SlotInfo *info = nullptr)
{
    QVariant value(77);
    QString error;
    EXPECT_FALSE(parseSlotValue(QString::fromLatin1(slot), QString::fromUtf8(text), &value, &error, {}, info)) << text;
    EXPECT_EQ(value, QVariant(77)) << "a failure leaves the value alone";
    return error;
}

} // namespace

TEST(SlotValue, NumbersComeInTheTypeOfTheSlot)
{
    EXPECT_EQ(parsed("Kvo_float_R", "0.5").metaType(), QMetaType::fromType<float>());
    EXPECT_EQ(parsed("Kvo_float_R", "0.5").toFloat(), 0.5f);
    EXPECT_EQ(parsed("Kvo_Float_R", "-2e1").toFloat(), -20.0f);
    EXPECT_EQ(parsed("Kvo_int_Mode", "3").metaType(), QMetaType::fromType<int>());
    EXPECT_EQ(parsed("Kvo_int_Mode", "3").toInt(), 3);
    EXPECT_EQ(parsed("Kvo_bool_Dirty", "true"), QVariant(true));
    EXPECT_EQ(parsed("Kvo_Bool_LinearFilter", "false"), QVariant(false));
}

TEST(SlotValue, AColorIsHexNamedOrComponents)
{
    EXPECT_EQ(qvariant_cast<QColor>(parsed("Kvo_QColor_C", "#ff8000")), QColor(255, 128, 0));
    EXPECT_EQ(qvariant_cast<QColor>(parsed("Kvo_QColor_C", "\"#ff800040\"")), QColor(255, 128, 0, 64));
    EXPECT_EQ(qvariant_cast<QColor>(parsed("Kvo_QColor_C", "red")), QColor(255, 0, 0));
    EXPECT_EQ(qvariant_cast<QColor>(parsed("Kvo_QColor_C", "[1, 0, 0]")).rgba(), qRgba(255, 0, 0, 255));
    EXPECT_EQ(qvariant_cast<QColor>(parsed("Kvo_QColor_C", "[0, 1, 0, 0]")).rgba(), qRgba(0, 255, 0, 0));
}

TEST(SlotValue, VectorsSizesAndRectanglesAreLists)
{
    EXPECT_EQ(qvariant_cast<QVector2D>(parsed("Kvo_QVector2D_Focus", "[0.25, 0.5]")), QVector2D(0.25f, 0.5f));
    EXPECT_EQ(qvariant_cast<QVector3D>(parsed("Kvo_QVector3D_Min", "[1, 2, 3]")), QVector3D(1, 2, 3));
    EXPECT_EQ(parsed("Kvo_QSize_MapSize", "[512, 256]").toSize(), QSize(512, 256));
    EXPECT_EQ(parsed("Kvo_QRect_Viewport", "[10, 20, 30, 40]").toRect(), QRect(10, 20, 30, 40));
}

TEST(SlotValue, ARectangleSlotTakesAListOfRectangles)
{
    const QVariantList list = parsed("Kvo_QRect_ViewportOut", "[[0, 0, 4, 4], [4, 0, 4, 4]]").toList();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[1].toRect(), QRect(4, 0, 4, 4));
}

TEST(SlotValue, AVariantSlotReadsFourNumbersAsARectangle)
{
    EXPECT_EQ(parsed("Kvo_QVariant_Rects", "[0, 0, 4, 2]").toRect(), QRect(0, 0, 4, 2));
    EXPECT_EQ(parsed("Kvo_QVariant_Rects", "[[0, 0, 4, 2], [1, 1, 2, 2]]").toList().value(1).toRect(),
              QRect(1, 1, 2, 2));
    EXPECT_EQ(parsed("Kvo_QVariant_Rects", "1.5").toDouble(), 1.5);
}

TEST(SlotValue, AMatrixIsGivenRowByRow)
{
    const auto matrix =
        qvariant_cast<QMatrix4x4>(parsed("Kvo_QMatrix4x4_M", "[1,2,3,4, 5,6,7,8, 9,10,11,12, 13,14,15,16]"));
    EXPECT_EQ(matrix(0, 3), 4.0f);
    EXPECT_EQ(matrix(3, 0), 13.0f);
}

TEST(SlotValue, TextNeedsNoQuotesAndMayLookLikeANumber)
{
    EXPECT_EQ(parsed("Kvo_QString_TexturePath", "a/b c.png").toString(), QStringLiteral("a/b c.png"));
    EXPECT_EQ(parsed("Kvo_QString_TexturePath", "12").toString(), QStringLiteral("12"));
    EXPECT_EQ(parsed("Kvo_string_FadeImageUrl1", "\"quoted \\\"x\\\"\"").toString(), QStringLiteral("quoted \"x\""));
}

TEST(SlotValue, NullEmptiesASlotOfAnyType)
{
    EXPECT_FALSE(parsed("Kvo_QColor_ColorBottom", "null").isValid());
    EXPECT_FALSE(parsed("Kvo_float_R", "null").isValid());
}

TEST(SlotValue, ADefaultValueStandsInForAMissingTypeWord)
{
    EXPECT_EQ(parsed("gain", "2", QVariant(1.0f)).metaType(), QMetaType::fromType<float>());
    EXPECT_EQ(parsed("Int_Level", "2", QVariant(0)).metaType(), QMetaType::fromType<int>());
    EXPECT_EQ(parsed("gain", "2").metaType(), QMetaType::fromType<double>());
}

TEST(SlotValue, SlotsOfOurPassesWithoutATypeWordAreStillTyped)
{
    EXPECT_EQ(parsed("Int_BlendMode", "3").metaType(), QMetaType::fromType<int>());
    EXPECT_EQ(errorOf("Int_BlendMode", "1.5"),
              QStringLiteral("'Int_BlendMode' takes a whole number, not the number 1.5"));
    const SlotInfo scale{.name = "brightness", .meaning = "scale", .range = {0, 4}};
    EXPECT_EQ(parsed("brightness", "2", {}, &scale).metaType(), QMetaType::fromType<float>());
    EXPECT_EQ(errorOf("brightness", "much", &scale),
              QStringLiteral("'brightness' takes a number, not the text \"much\""));
}

TEST(SlotValue, AChoiceGoesByItsNameOrItsNumber)
{
    static constexpr SlotChoice kChoices[] = {{0, "none", "nothing"}, {3, "colorDodge", "much"}};
    const SlotInfo mode{.name = "Kvo_int_Mode", .meaning = "mode", .kind = SlotKind::Choice, .choices = kChoices};
    EXPECT_EQ(parsed("Kvo_int_Mode", "colorDodge", {}, &mode), QVariant(3));
    EXPECT_EQ(parsed("Kvo_int_Mode", "\"none\"", {}, &mode), QVariant(0));
    EXPECT_EQ(parsed("Kvo_int_Mode", "7", {}, &mode), QVariant(7)) << "what the pass makes of it is its business";
    EXPECT_EQ(parsed("Kvo_int_Mode", "null", {}, &mode), QVariant());
    EXPECT_EQ(errorOf("Kvo_int_Mode", "colordodge", &mode),
              QStringLiteral("'Kvo_int_Mode' takes one of none, colorDodge, or a whole number, not the text "
                             "\"colordodge\"; did you mean 'colorDodge'?"));
    EXPECT_EQ(errorOf("Kvo_int_Mode", "1.5", &mode),
              QStringLiteral("'Kvo_int_Mode' takes one of none, colorDodge, or a whole number, not the number 1.5"));
}

TEST(SlotValue, SaysWhatASlotTakes)
{
    EXPECT_EQ(errorOf("Kvo_float_R", "[1]"), QStringLiteral("'Kvo_float_R' takes a number, not a list of 1"));
    EXPECT_EQ(errorOf("Kvo_int_Mode", "1.5"),
              QStringLiteral("'Kvo_int_Mode' takes a whole number, not the number 1.5"));
    EXPECT_EQ(errorOf("Kvo_bool_Dirty", "1"), QStringLiteral("'Kvo_bool_Dirty' takes true or false, not the number 1"));
    // Its last column is one that no int holds.
    EXPECT_EQ(errorOf("Kvo_QRect_Viewport", "[2147483647, 0, 2, 4]"),
              QStringLiteral("'Kvo_QRect_Viewport' takes [x, y, width, height], not a list of 4"));
    EXPECT_EQ(parsed("Kvo_QRect_Viewport", "[2147483647, 0, 1, 4]").toRect(),
              QRect(QPoint(2147483647, 0), QPoint(2147483647, 3)));
    EXPECT_EQ(errorOf("Kvo_QRect_Viewport", "[1, 2, 3]"),
              QStringLiteral("'Kvo_QRect_Viewport' takes [x, y, width, height], not a list of 3"));
    EXPECT_TRUE(errorOf("Kvo_QColor_C", "no colour").contains(QStringLiteral("the text \"no colour\"")));
    EXPECT_TRUE(errorOf("Kvo_QColor_C", "[2, 0, 0]").contains(QStringLiteral("from 0 to 1")));
    EXPECT_TRUE(errorOf("Kvo_QMatrix4x4_M", "[1, 2]").contains(QStringLiteral("16 numbers")));
    EXPECT_TRUE(errorOf("Kvo_QSize_S", "[1.5, 2]").contains(QStringLiteral("[width, height]")));
    EXPECT_TRUE(errorOf("Kvo_int_Mode", "3000000000").contains(QStringLiteral("a whole number")));
}

TEST(SlotValue, ObjectsHaveNoTextForm)
{
    EXPECT_EQ(errorOf("Kvo_KvoTexture*_Frame", "3"),
              QStringLiteral("'Kvo_KvoTexture*_Frame' takes a link or a host value, not the number 3"));
    EXPECT_TRUE(errorOf("Kvo_KvoGPUModel*_Geometry", "x").contains(QStringLiteral("link or a host value")));
}

TEST(SlotValue, IsDescribedForPeople)
{
    EXPECT_EQ(describeSlotValue(QVariant()), QStringLiteral("none"));
    EXPECT_EQ(describeSlotValue(QColor(64, 64, 64)), QStringLiteral("#404040"));
    EXPECT_EQ(describeSlotValue(QColor(64, 64, 64, 128)), QStringLiteral("#40404080"));
    EXPECT_EQ(describeSlotValue(QRect(1, 2, 3, 4)), QStringLiteral("[1, 2, 3, 4]"));
    // The corners of a host's own may be as far apart as two ints are.
    constexpr int kLeast = std::numeric_limits<int>::min(), kMost = std::numeric_limits<int>::max();
    EXPECT_EQ(describeSlotValue(QRect(QPoint(kLeast, 0), QPoint(kMost, 1))),
              QStringLiteral("[-2.14748e+09, 0, 4.29497e+09, 2]"));
    EXPECT_EQ(describeSlotValue(0.5f), QStringLiteral("0.5"));
    EXPECT_EQ(describeSlotValue(true), QStringLiteral("true"));
}
