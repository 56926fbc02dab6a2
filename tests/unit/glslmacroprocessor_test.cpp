#include "support/messages.h"

#include <gl/glslmacroprocessor.h>
#include <model/instancedataplan.h>
#include <model/instancedataregistry.h>

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace Brevane::Kvo {

namespace {

class GLSLMacroProcessorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(_directory.isValid());
        processor.addIncludePath(_directory.path());
    }

    void write(const char *name, const QByteArray &text) const
    {
        QFile file(_directory.filePath(QLatin1String(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    }

    ProcessedSource process(const char *text) const
    {
        return processor.process(QString::fromUtf8(text), QStringLiteral("main"));
    }
    QStringList lines(const char *text) const { return process(text).text.split(u'\n'); }

    QTemporaryDir _directory;
    GLSLMacroProcessor processor;
};

// The file and line that the compiler reports for the line that holds this text.
QPair<int, int> placeOf(const QString &processed, const QString &text)
{
    int file = 0;
    int line = 1;
    int version = 150;
    for (const QString &l : processed.split(u'\n')) {
        const QStringList words = l.trimmed().split(u' ');
        if (words[0] == QStringLiteral("#version"))
            version = words.value(1).toInt();
        if (l.contains(text)) {
            EXPECT_EQ(line / GLSLMacroProcessor::kLinesPerFile, file) << "the line tells the file too";
            return {file, line % GLSLMacroProcessor::kLinesPerFile};
        }
        if (words[0] == QStringLiteral("#line")) {
            // before 3.30 the directive's own line gets the number
            line = words.value(1).toInt() + (version < 330 ? 1 : 0);
            file = words.value(2).toInt();
        } else {
            ++line;
        }
    }
    return {-1, -1};
}

} // namespace

TEST_F(GLSLMacroProcessorTest, DefinesStandRightAfterTheVersionLine)
{
    processor.addDefine(QStringLiteral("SAMPLES"), QStringLiteral("4"));
    processor.addDefine(QStringLiteral("FLAG"), QString());
    const QStringList text = lines("// a comment\n#version 150\nvoid main() {}\n");
    EXPECT_EQ(text[0], QStringLiteral("#version 150"));
    EXPECT_EQ(text[1], QStringLiteral("#define SAMPLES 4"));
    EXPECT_EQ(text[2].trimmed(), QStringLiteral("#define FLAG"));
    EXPECT_EQ(text.filter(QStringLiteral("#version")).size(), 1);
}

TEST_F(GLSLMacroProcessorTest, VersionAndProfileOfTheSourceAreKept)
{
    EXPECT_EQ(lines("#version 400 core\nvoid main() {}\n")[0], QStringLiteral("#version 400 core"));
}

TEST_F(GLSLMacroProcessorTest, SourceWithoutAVersionGetsTheBaseline)
{
    EXPECT_EQ(lines("void main() {}\n")[0], QStringLiteral("#version 150"));
}

TEST_F(GLSLMacroProcessorTest, DefineGivenAgainReplacesItsValue)
{
    processor.addDefine(QStringLiteral("COUNT"), QStringLiteral("1"));
    processor.addDefine(QStringLiteral("COUNT"), QStringLiteral("2"));
    const QString text = process("#version 150\n").text;
    EXPECT_FALSE(text.contains(QStringLiteral("#define COUNT 1")));
    EXPECT_EQ(text.count(QStringLiteral("#define COUNT 2")), 1);
}

TEST_F(GLSLMacroProcessorTest, IncludeIsReplacedByTheFile)
{
    write("a.glslh", "float a();\n");
    const ProcessedSource result = process("#version 150\n#include \"a.glslh\"\nvoid main() {}\n");
    EXPECT_TRUE(result.errors.isEmpty());
    EXPECT_TRUE(result.text.contains(QStringLiteral("float a();")));
    EXPECT_FALSE(result.text.contains(QStringLiteral("#include")));
    EXPECT_EQ(result.fileNames, QStringList({QStringLiteral("main"), QStringLiteral("a.glslh")}));
    EXPECT_EQ(result.originals.value(1), QStringLiteral("float a();\n"));
}

TEST_F(GLSLMacroProcessorTest, FileIsIncludedOncePerSource)
{
    write("a.glslh", "#include \"b.glslh\"\nfloat a();\n");
    write("b.glslh", "#include \"a.glslh\"\nfloat b();\n");
    const ProcessedSource result =
        process("#version 150\n#include \"a.glslh\"\n#include \"b.glslh\"\n#include \"a.glslh\"\n");
    EXPECT_TRUE(result.errors.isEmpty());
    EXPECT_EQ(result.text.count(QStringLiteral("float a();")), 1);
    EXPECT_EQ(result.text.count(QStringLiteral("float b();")), 1);
}

TEST_F(GLSLMacroProcessorTest, NestedIncludesAreBounded)
{
    for (int i = 0; i < 100; ++i)
        write(qPrintable(QStringLiteral("n%1").arg(i)), QStringLiteral("#include \"n%1\"\n").arg(i + 1).toUtf8());
    write("n100", "float last();\n");
    const ProcessedSource result = process("#version 150\n#include \"n0\"\n");
    EXPECT_EQ(result.errors.size(), 1);
    EXPECT_FALSE(result.text.contains(QStringLiteral("float last")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("#error")));
}

TEST_F(GLSLMacroProcessorTest, DeepButBoundedNestingWorks)
{
    for (int i = 0; i < 16; ++i)
        write(qPrintable(QStringLiteral("n%1").arg(i)), QStringLiteral("#include \"n%1\"\n").arg(i + 1).toUtf8());
    write("n16", "float last();\n");
    const ProcessedSource result = process("#version 150\n#include \"n0\"\n");
    EXPECT_TRUE(result.errors.isEmpty());
    EXPECT_TRUE(result.text.contains(QStringLiteral("float last")));
}

TEST_F(GLSLMacroProcessorTest, MissingIncludeBecomesAnErrorThatNamesIt)
{
    const ProcessedSource result = process("#version 150\n#include \"Nowhere.glslh\"\n");
    ASSERT_EQ(result.errors.size(), 1);
    EXPECT_TRUE(result.errors.first().contains(QStringLiteral("Nowhere.glslh")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("#error")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("Nowhere.glslh")));
}

TEST_F(GLSLMacroProcessorTest, IncludeWithoutANameIsAnError)
{
    EXPECT_EQ(process("#version 150\n#include\n").errors.size(), 1);
}

TEST_F(GLSLMacroProcessorTest, IncludePathsAreSearchedInTheirOrderAndTheLibraryLast)
{
    QTemporaryDir second;
    QFile file(second.filePath(QStringLiteral("a.glslh")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("float second();\n");
    file.close();
    processor.addIncludePath(second.path());
    EXPECT_TRUE(process("#version 150\n#include \"a.glslh\"\n").text.contains(QStringLiteral("second")));
    write("a.glslh", "float first();\n");
    EXPECT_TRUE(process("#version 150\n#include \"a.glslh\"\n").text.contains(QStringLiteral("first")));
    write("KvoUtilities.glslh", "float mine();\n");
    EXPECT_TRUE(process("#version 150\n#include \"KvoUtilities.glslh\"\n").text.contains(QStringLiteral("mine")));
}

TEST_F(GLSLMacroProcessorTest, LibraryFilesAreFoundWithoutAnyPath)
{
    const GLSLMacroProcessor plain;
    for (const char *name : {"KvoUtilities.glslh", "TextureManager.glslh"}) {
        const ProcessedSource result =
            plain.process(QStringLiteral("#version 150\n#include \"%1\"\n").arg(QLatin1String(name)), QString());
        EXPECT_TRUE(result.errors.isEmpty()) << qPrintable(result.errors.join(u'\n'));
    }
    for (const char *name : {"KvoUtilities.glslc", "TextureManager.glslc"}) {
        bool found = false;
        EXPECT_FALSE(plain.readFile(QLatin1String(name), &found).isEmpty()) << name;
        EXPECT_TRUE(found) << name;
    }
    bool found = true;
    EXPECT_TRUE(plain.readFile(QStringLiteral("Nowhere.glslc"), &found).isEmpty());
    EXPECT_FALSE(found);
}

TEST_F(GLSLMacroProcessorTest, InstanceDataBecomesTheDeclarationsOfThePlan)
{
    const ProcessedSource result = process("#version 150\n#instancedata \"InstanceInfo\"\nvoid main() {}\n");
    EXPECT_TRUE(result.errors.isEmpty());
    EXPECT_TRUE(result.usesInstanceData);
    EXPECT_TRUE(result.text.contains(QStringLiteral("getModelMatrix")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("getModelNormalMatrix")));
    EXPECT_FALSE(result.text.contains(QStringLiteral("#instancedata")));
    EXPECT_FALSE(process("#version 150\nvoid main() {}\n").usesInstanceData);
}

TEST_F(GLSLMacroProcessorTest, UnknownInstanceDataPlanBecomesAnErrorThatNamesIt)
{
    const ProcessedSource result = process("#version 150\n#instancedata \"NoSuchPlan\"\n");
    ASSERT_EQ(result.errors.size(), 1);
    EXPECT_TRUE(result.errors.first().contains(QStringLiteral("NoSuchPlan")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("#error")));
}

TEST_F(GLSLMacroProcessorTest, DirectivesInCommentsAreLeftAlone)
{
    const ProcessedSource result = process("#version 150\n"
                                           "// #include \"Nowhere.glslh\"\n"
                                           "/* #include \"Nowhere.glslh\"\n"
                                           "#include \"Nowhere.glslh\"\n"
                                           "#instancedata \"NoSuchPlan\"\n"
                                           "#version 400\n"
                                           "*/\n"
                                           "//gammaCorrect(Output, u_ScreenGamma)\n"
                                           "void main() {}\n");
    EXPECT_TRUE(result.errors.isEmpty()) << qPrintable(result.errors.join(u'\n'));
    EXPECT_TRUE(result.text.contains(QStringLiteral("// #include \"Nowhere.glslh\"")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("//gammaCorrect(Output, u_ScreenGamma)")));
    EXPECT_FALSE(result.usesInstanceData);
    EXPECT_TRUE(result.text.startsWith(QStringLiteral("#version 150\n")));
}

TEST_F(GLSLMacroProcessorTest, VersionInACommentIsNoVersion)
{
    const QString text = process("/*\n#version 400\n*/\n#version 150\nvoid main() {}\n").text;
    EXPECT_TRUE(text.startsWith(QStringLiteral("#version 150\n"))) << qPrintable(text);
}

TEST_F(GLSLMacroProcessorTest, LinesKeepTheirNumbers)
{
    write("a.glslh", "int a1;\nint a2;\n#include \"b.glslh\"\nint a4;\n");
    write("b.glslh", "int b1;\nint b2;");
    processor.addDefine(QStringLiteral("ANY"), QStringLiteral("1"));
    for (const char *version : {"#version 150", "#version 330", "#version 400"}) {
        const QString text = process((QByteArray(version)
                                      + "\nint m2;\n#include \"a.glslh\"\nint m4;\n#instancedata \"OBJMaterial\"\n"
                                        "int m6;\nint m7;")
                                         .constData())
                                 .text;
        using Place = QPair<int, int>;
        EXPECT_EQ(placeOf(text, QStringLiteral("int m2;")), Place(0, 2)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int a1;")), Place(1, 1)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int a2;")), Place(1, 2)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int b1;")), Place(2, 1)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int b2;")), Place(2, 2)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int a4;")), Place(1, 4)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int m4;")), Place(0, 4)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int m6;")), Place(0, 6)) << version;
        EXPECT_EQ(placeOf(text, QStringLiteral("int m7;")), Place(0, 7)) << version;
    }
}

TEST_F(GLSLMacroProcessorTest, FilesThatIncludeEachOtherInConditionsAreBounded)
{
    for (int i = 0; i < 30; ++i) {
        const QByteArray next = QStringLiteral("#include \"n%1\"\n").arg(i + 1).toUtf8();
        write(qPrintable(QStringLiteral("n%1").arg(i)), "#ifdef A\n" + next + "#else\n" + next + "#endif\n");
    }
    write("n30", "float last();\n");
    const ProcessedSource result = process("#version 150\n#include \"n0\"\n");
    EXPECT_TRUE(result.text.contains(QStringLiteral("more than 1000 includes")));
    EXPECT_LT(result.text.size(), 1 << 20);
}

TEST_F(GLSLMacroProcessorTest, WindowsLineEndsDoNotConfuseDirectives)
{
    write("a.glslh", "float a();\r\n");
    const ProcessedSource result = process("#version 150\r\n#include \"a.glslh\"\r\nvoid main() {}\r\n");
    EXPECT_TRUE(result.errors.isEmpty());
    EXPECT_TRUE(result.text.startsWith(QStringLiteral("#version 150\n")));
    EXPECT_TRUE(result.text.contains(QStringLiteral("float a();")));
}

TEST_F(GLSLMacroProcessorTest, ADefinitionWithoutANameIsLeftOutAndSaid)
{
    GLSLMacroProcessor ours;
    const Brevane::Kvo::Test::MessageCapture messages;
    ours.addDefine(QString(), QStringLiteral("5"));
    ours.addDefine(QStringLiteral("A"), QStringLiteral("6"));
    EXPECT_EQ(messages.texts(QtWarningMsg),
              QStringList(QStringLiteral("GLSLMacroProcessor::addDefine: a definition without a name is left out")));
    const QString text = ours.process(QStringLiteral("#version 150\nvoid main() {}\n"), QString(), {}).text;
    EXPECT_FALSE(text.contains(QStringLiteral("#define  5")));
    EXPECT_TRUE(text.contains(QStringLiteral("#define A 6")));
}

} // namespace Brevane::Kvo
