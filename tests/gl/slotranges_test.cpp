#include "support/gltest.h"
#include "support/hostpasses.h"
#include "support/messages.h"
#include "support/passvalues.h"

#include <core/renderpasshelper.h>
#include <host/passfactory.h>

#include <QSize>
#include <QVector2D>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

// The values that slots call sane, in the passes: those are used as they are, and nothing is said about them.

using namespace Brevane::Kvo;
using namespace Brevane::Kvo::Test;

namespace {

class SaneValues : public GLTest, public ::testing::WithParamInterface<PassRow>
{
protected:
    // Objects before the context goes.
    void TearDown() override
    {
        pass.reset();
        values.reset();
        GLTest::TearDown();
    }

    void makePass()
    {
        values = std::make_unique<Values>();
        pass = passFactory().make(text(GetParam().className));
        ASSERT_TRUE(pass);
        for (int i = 0; i < pass->numInputs(); ++i)
            pass->setInput(i, values->right(GetParam().inputs[std::size_t(i)]));
        pass->setup(nullptr);
        runFrame(*pass);
    }

    const SlotInfo *info(int slot) const { return dynamic_cast<const RenderPassHelper &>(*pass).inputInfo(slot); }

    void expectTaken(int slot, const QVariant &value)
    {
        const QVariant before = values->right(GetParam().inputs[std::size_t(slot)]);
        pass->setInput(slot, value);
        const MessageCapture messages;
        runFrame(*pass);
        const QString name =
            QStringLiteral("%1: %2 ").arg(QLatin1StringView(GetParam().className), pass->inputName(slot));
        EXPECT_EQ(messages.containing(name), 0) << messages.texts().join(u'\n').toStdString();
        pass->setInput(slot, before);
        runFrame(*pass);
    }

    // A value of the slot's type whose parts are all this number.
    QVariant ofNumber(int slot, double number) const
    {
        switch (GetParam().inputs[std::size_t(slot)].type.id()) {
        case QMetaType::Int: return int(number);
        case QMetaType::QSize: return QSize(int(number), int(number));
        case QMetaType::QVector2D: return QVector2D(float(number), float(number));
        default: return float(number);
        }
    }

    std::unique_ptr<Values> values;
    std::unique_ptr<RenderPass> pass;
};

std::vector<PassRow> rowsWithInputs()
{
    std::vector<PassRow> rows;
    for (const PassRow &row : passTable())
        if (!row.inputs.empty())
            rows.push_back(row);
    for (const PassRow &row : hostPassTable())
        if (!row.inputs.empty() && passFactory().knows(text(row.className)))
            rows.push_back(row);
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Passes, SaneValues, ::testing::ValuesIn(rowsWithInputs()),
                         [](const auto &row) { return std::string(row.param.className); });

} // namespace

TEST_P(SaneValues, AtBothEndsOfARangeAndOfEveryChoiceAreTakenAsTheyAre)
{
    makePass();
    for (int slot = 0; slot < pass->numInputs(); ++slot) {
        const SlotInfo *about = info(slot);
        ASSERT_TRUE(about);
        for (const SlotChoice &choice : about->choices)
            expectTaken(slot, choice.value);
        // Maps as large as drivers have take more memory than there is; what becomes of them is another test's.
        if (about->kind == SlotKind::Size || !std::isfinite(about->range.least))
            continue;
        expectTaken(slot, ofNumber(slot, about->range.least));
        if (std::isfinite(about->range.most))
            expectTaken(slot, ofNumber(slot, about->range.most));
    }
}
