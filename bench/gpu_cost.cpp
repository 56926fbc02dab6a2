// What a GPU's compiler makes of our shaders, without a GPU: registers, scratch memory, how many waves fit, and
// instructions of every program that the pipelines of the tree build.
//
//   gpu_cost FOLDER [FAMILY]     FAMILY: NAVI21 (the default), VEGA10, POLARIS10, GFX1100
//
// Programs are caught on their way into GL, turned into SPIR-V by glslangValidator, and compiled by Mesa's driver
// for AMD's GPUs, which needs no device for that. Intermediate files stay in the folder. Waves are those that fit on
// a SIMD, of 16 there (10 on the families before NAVI); latency and inverse throughput are its static estimates, for comparing
// versions of one shader.

#include "context.h"

#include "support/stage.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <vulkan/vulkan.h>

#include <epoxy/gl.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

using namespace Brevane::Kvo;

namespace {

struct Source
{
    GLenum stage;
    QByteArray text;
};

struct Program
{
    QString label;
    std::vector<Source> sources;
};

// What passes through GL while pipelines run.
std::map<GLuint, Source> shaders;
std::map<GLuint, Program> programs;
PFNGLCREATESHADERPROC realCreateShader;
PFNGLSHADERSOURCEPROC realShaderSource;
PFNGLATTACHSHADERPROC realAttachShader;
PFNGLOBJECTLABELPROC realObjectLabel;
std::vector<Program> caught;
QStringList seen;

GLuint createShader(GLenum stage)
{
    const GLuint shader = realCreateShader(stage);
    shaders[shader] = {stage, {}};
    return shader;
}

void shaderSource(GLuint shader, GLsizei count, const GLchar *const *texts, const GLint *lengths)
{
    QByteArray &text = shaders[shader].text;
    text.clear();
    for (GLsizei i = 0; i < count; ++i)
        text += lengths && lengths[i] >= 0 ? QByteArray(texts[i], lengths[i]) : QByteArray(texts[i]);
    realShaderSource(shader, count, texts, lengths);
}

void attachShader(GLuint program, GLuint shader)
{
    programs[program].sources.push_back(shaders[shader]);
    realAttachShader(program, shader);
}

void objectLabel(GLenum kind, GLuint name, GLsizei length, const GLchar *label)
{
    if (kind == GL_PROGRAM)
        programs[name].label = length < 0 ? QString::fromUtf8(label) : QString::fromUtf8(label, length);
    realObjectLabel(kind, name, length, label);
}

// Programs of one pipeline, those apart that another pipeline had.
void collect()
{
    for (auto &[name, program] : programs) {
        QCryptographicHash hash(QCryptographicHash::Sha1);
        for (const Source &source : program.sources)
            hash.addData(source.text);
        const QString id = QString::fromLatin1(hash.result().toHex());
        if (program.sources.empty() || seen.contains(id))
            continue;
        seen << id;
        caught.push_back(program);
    }
    programs.clear();
    shaders.clear();
}

void putFunctionsInPlace()
{
    // Functions are looked up at their first call, which would overwrite what is put in their place.
    const GLuint shader = glCreateShader(GL_VERTEX_SHADER);
    const GLuint program = glCreateProgram();
    const char *text = "";
    glShaderSource(shader, 1, &text, nullptr);
    glAttachShader(program, shader);
    glObjectLabel(GL_PROGRAM, program, 0, text);
    glDeleteProgram(program);
    glDeleteShader(shader);
    realCreateShader = std::exchange(epoxy_glCreateShader, createShader);
    realShaderSource = std::exchange(epoxy_glShaderSource, shaderSource);
    realAttachShader = std::exchange(epoxy_glAttachShader, attachShader);
    realObjectLabel = std::exchange(epoxy_glObjectLabel, objectLabel);
}

bool catchPrograms()
{
    for (const QString &pipeline : Test::pipelineNames()) {
        const bool hasContext = Bench::inContext([&] {
            if (!realCreateShader)
                putFunctionsInPlace();
            // With a map, since programs without one sample nothing.
            ModelData data = Test::threeCubes(0.5f);
            data.materials.first().map_Kd = QImage(8, 8, QImage::Format_RGBA8888);
            data.materials.first().map_Kd.fill(Qt::gray);
            Test::Stage stage(pipeline, data, {64, 36});
            for (int frame = 0; frame < 3; ++frame)
                stage.render();
        });
        if (!hasContext)
            return false;
        collect();
    }
    return true;
}

const char *suffixOf(GLenum stage)
{
    return stage == GL_VERTEX_SHADER ? "vert" : stage == GL_GEOMETRY_SHADER ? "geom" : "frag";
}

bool run(const QString &tool, const QStringList &arguments, const QString &folder, QByteArray *output)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start(tool, arguments);
    if (!process.waitForFinished(60000)) {
        *output = "cannot run " + tool.toLocal8Bit();
        return false;
    }
    *output = process.readAllStandardOutput() + process.readAllStandardError();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

/// A stage of a program as the driver takes it.
struct Module
{
    VkShaderStageFlagBits stage;
    QByteArray words;
    QJsonObject interface;
};

// The texts say an old version, for old drivers; the translator wants a new one.
QByteArray modern(QByteArray text)
{
    const qsizetype version = text.indexOf("#version");
    const qsizetype end = text.indexOf('\n', version);
    if (version >= 0 && end > version)
        text.replace(version, end - version, "#version 450 core");
    text.replace("textureQueryLOD", "textureQueryLod");
    text.replace("gl_VertexID", "gl_VertexIndex");
    return text;
}

bool translate(const Program &program, const QString &folder, std::vector<Module> *modules)
{
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);
    QStringList arguments{QStringLiteral("-V"),
                          QStringLiteral("-l"),
                          QStringLiteral("-R"),
                          QStringLiteral("--auto-map-locations"),
                          QStringLiteral("--auto-map-bindings"),
                          QStringLiteral("--target-env"),
                          QStringLiteral("vulkan1.1")};
    int number = 0;
    for (const Source &source : program.sources) {
        const QString name =
            QStringLiteral("%1.%2").arg(number++, 2, 10, QLatin1Char('0')).arg(QLatin1String(suffixOf(source.stage)));
        QFile file(folder + QLatin1Char('/') + name);
        if (!file.open(QIODevice::WriteOnly) || file.write(modern(source.text)) < 0)
            return false;
        arguments << name;
    }
    QByteArray output;
    if (!run(QStringLiteral("glslangValidator"), arguments, folder, &output)) {
        std::fprintf(stderr, "%s: not translated: %s\n", qPrintable(program.label),
                     output.mid(output.indexOf("ERROR")).left(300).constData());
        return false;
    }
    const std::pair<const char *, VkShaderStageFlagBits> stages[] = {{"vert", VK_SHADER_STAGE_VERTEX_BIT},
                                                                     {"geom", VK_SHADER_STAGE_GEOMETRY_BIT},
                                                                     {"frag", VK_SHADER_STAGE_FRAGMENT_BIT}};
    for (const auto &[suffix, stage] : stages) {
        const QString name = QLatin1String(suffix) + QStringLiteral(".spv");
        QFile file(folder + QLatin1Char('/') + name);
        if (!file.exists())
            continue;
        if (!file.open(QIODevice::ReadOnly)
            || !run(QStringLiteral("spirv-cross"), {name, QStringLiteral("--reflect")}, folder, &output))
            return false;
        modules->push_back({stage, file.readAll(), QJsonDocument::fromJson(output).object()});
    }
    return !modules->empty();
}

#define KVO_CHECK(call)                                                                                                \
    do {                                                                                                               \
        const VkResult result = (call);                                                                                \
        if (result < 0) {                                                                                              \
            std::fprintf(stderr, "%s: %d\n", #call, int(result));                                                      \
            return false;                                                                                              \
        }                                                                                                              \
    } while (false)

/// A driver that compiles and draws nothing.
class Compiler
{
public:
    bool open()
    {
        VkApplicationInfo application{};
        application.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
        application.apiVersion = VK_API_VERSION_1_3;
        VkInstanceCreateInfo instanceInfo{};
        instanceInfo.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
        instanceInfo.pApplicationInfo = &application;
        VkInstance instance = nullptr;
        KVO_CHECK(vkCreateInstance(&instanceInfo, nullptr, &instance));
        uint32_t count = 1;
        VkPhysicalDevice physical = nullptr;
        KVO_CHECK(vkEnumeratePhysicalDevices(instance, &count, &physical));
        if (count == 0) {
            std::fprintf(stderr, "no driver: is mesa-vulkan-drivers installed?\n");
            return false;
        }
        VkPhysicalDeviceProperties properties;
        vkGetPhysicalDeviceProperties(physical, &properties);
        std::printf("%s\n", properties.deviceName);
        VkPhysicalDevicePipelineExecutablePropertiesFeaturesKHR statistics{};
        statistics.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PIPELINE_EXECUTABLE_PROPERTIES_FEATURES_KHR;
        VkPhysicalDeviceVulkan13Features features13{};
        features13.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES;
        features13.pNext = &statistics;
        VkPhysicalDeviceFeatures2 features{};
        features.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
        features.pNext = &features13;
        vkGetPhysicalDeviceFeatures2(physical, &features);
        features.features.robustBufferAccess = VK_FALSE;
        const float priority = 1;
        VkDeviceQueueCreateInfo queue{};
        queue.sType = VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO;
        queue.queueCount = 1;
        queue.pQueuePriorities = &priority;
        const char *extension = VK_KHR_PIPELINE_EXECUTABLE_PROPERTIES_EXTENSION_NAME;
        VkDeviceCreateInfo deviceInfo{};
        deviceInfo.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
        deviceInfo.pNext = &features;
        deviceInfo.queueCreateInfoCount = 1;
        deviceInfo.pQueueCreateInfos = &queue;
        deviceInfo.enabledExtensionCount = 1;
        deviceInfo.ppEnabledExtensionNames = &extension;
        KVO_CHECK(vkCreateDevice(physical, &deviceInfo, nullptr, &_device));
        load(_executables, "vkGetPipelineExecutablePropertiesKHR");
        load(_statistics, "vkGetPipelineExecutableStatisticsKHR");
        return _executables && _statistics;
    }

    /// The numbers of each stage, by the driver's names for both.
    bool compile(const std::vector<Module> &modules, std::vector<std::pair<QString, QMap<QString, double>>> *out);

private:
    template <typename Function>
    void load(Function &function, const char *name)
    {
        function = reinterpret_cast<Function>(vkGetDeviceProcAddr(_device, name));
    }

    VkDevice _device = nullptr;
    PFN_vkGetPipelineExecutablePropertiesKHR _executables = nullptr;
    PFN_vkGetPipelineExecutableStatisticsKHR _statistics = nullptr;
};

uint32_t lengthOf(const QJsonObject &variable)
{
    const QJsonArray dimensions = variable.value(QLatin1String("array")).toArray();
    return dimensions.isEmpty() ? 1 : uint32_t(dimensions.first().toInt());
}

// What the program reads, as bindings of one set, whichever stages read it.
std::vector<VkDescriptorSetLayoutBinding> bindingsOf(const std::vector<Module> &modules)
{
    std::map<uint32_t, VkDescriptorSetLayoutBinding> bindings;
    for (const Module &module : modules) {
        for (const char *kind : {"textures", "images", "ubos", "ssbos"}) {
            for (const auto &value : module.interface.value(QLatin1String(kind)).toArray()) {
                const QJsonObject variable = value.toObject();
                const bool isBuffer =
                    variable.value(QLatin1String("type")).toString().endsWith(QLatin1String("Buffer"));
                VkDescriptorSetLayoutBinding &binding =
                    bindings[uint32_t(variable.value(QLatin1String("binding")).toInt())];
                binding.binding = uint32_t(variable.value(QLatin1String("binding")).toInt());
                binding.descriptorCount = lengthOf(variable);
                binding.stageFlags |= VkShaderStageFlags(module.stage);
                binding.descriptorType = kind[0] == 'u'   ? VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER
                                         : kind[0] == 's' ? VK_DESCRIPTOR_TYPE_STORAGE_BUFFER
                                         : kind[0] == 'i' ? VK_DESCRIPTOR_TYPE_STORAGE_IMAGE
                                         : isBuffer       ? VK_DESCRIPTOR_TYPE_UNIFORM_TEXEL_BUFFER
                                                          : VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER;
            }
        }
    }
    std::vector<VkDescriptorSetLayoutBinding> list;
    for (const auto &[number, binding] : bindings)
        list.push_back(binding);
    return list;
}

VkFormat formatOf(const QString &type, bool isTarget)
{
    const int components = type.back().isDigit() ? type.back().digitValue() : 1;
    if (isTarget)
        return type.startsWith(QLatin1Char('u'))   ? VK_FORMAT_R32G32B32A32_UINT
               : type.startsWith(QLatin1Char('i')) ? VK_FORMAT_R32G32B32A32_SINT
                                                   : VK_FORMAT_R16G16B16A16_SFLOAT;
    constexpr VkFormat kUnsigned[] = {VK_FORMAT_R32_UINT, VK_FORMAT_R32G32_UINT, VK_FORMAT_R32G32B32_UINT,
                                      VK_FORMAT_R32G32B32A32_UINT};
    constexpr VkFormat kFloat[] = {VK_FORMAT_R32_SFLOAT, VK_FORMAT_R32G32_SFLOAT, VK_FORMAT_R32G32B32_SFLOAT,
                                   VK_FORMAT_R32G32B32A32_SFLOAT};
    return (type.startsWith(QLatin1Char('u')) ? kUnsigned : kFloat)[components - 1];
}

bool Compiler::compile(const std::vector<Module> &modules, std::vector<std::pair<QString, QMap<QString, double>>> *out)
{
    const std::vector<VkDescriptorSetLayoutBinding> bindings = bindingsOf(modules);
    VkDescriptorSetLayoutCreateInfo setInfo{};
    setInfo.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO;
    setInfo.bindingCount = uint32_t(bindings.size());
    setInfo.pBindings = bindings.data();
    VkDescriptorSetLayout set = nullptr;
    KVO_CHECK(vkCreateDescriptorSetLayout(_device, &setInfo, nullptr, &set));
    VkPipelineLayoutCreateInfo layoutInfo{};
    layoutInfo.sType = VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO;
    layoutInfo.setLayoutCount = 1;
    layoutInfo.pSetLayouts = &set;
    VkPipelineLayout layout = nullptr;
    KVO_CHECK(vkCreatePipelineLayout(_device, &layoutInfo, nullptr, &layout));

    std::vector<VkPipelineShaderStageCreateInfo> stages;
    std::vector<VkVertexInputAttributeDescription> attributes;
    std::vector<VkVertexInputBindingDescription> buffers;
    std::vector<VkFormat> targets;
    for (const Module &module : modules) {
        VkShaderModuleCreateInfo moduleInfo{};
        moduleInfo.sType = VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO;
        moduleInfo.codeSize = std::size_t(module.words.size());
        moduleInfo.pCode = reinterpret_cast<const uint32_t *>(module.words.constData());
        VkPipelineShaderStageCreateInfo stage{};
        stage.sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
        stage.stage = module.stage;
        stage.pName = "main";
        KVO_CHECK(vkCreateShaderModule(_device, &moduleInfo, nullptr, &stage.module));
        stages.push_back(stage);
        const auto variables = [&](const char *direction) {
            return module.interface.value(QLatin1String(direction)).toArray();
        };
        if (module.stage == VK_SHADER_STAGE_VERTEX_BIT) {
            for (const auto &value : variables("inputs")) {
                const QJsonObject input = value.toObject();
                const auto buffer = uint32_t(buffers.size());
                attributes.push_back({uint32_t(input.value(QLatin1String("location")).toInt()), buffer,
                                      formatOf(input.value(QLatin1String("type")).toString(), false), 0});
                buffers.push_back({buffer, 16, VK_VERTEX_INPUT_RATE_VERTEX});
            }
        } else if (module.stage == VK_SHADER_STAGE_FRAGMENT_BIT) {
            for (const auto &value : variables("outputs")) {
                const QJsonObject output = value.toObject();
                const auto location = std::size_t(output.value(QLatin1String("location")).toInt());
                targets.resize(std::max(targets.size(), location + lengthOf(output)));
                for (std::size_t i = 0; i < lengthOf(output); ++i)
                    targets[location + i] = formatOf(output.value(QLatin1String("type")).toString(), true);
            }
        }
    }

    VkPipelineVertexInputStateCreateInfo vertices{};
    vertices.sType = VK_STRUCTURE_TYPE_PIPELINE_VERTEX_INPUT_STATE_CREATE_INFO;
    vertices.vertexBindingDescriptionCount = uint32_t(buffers.size());
    vertices.pVertexBindingDescriptions = buffers.data();
    vertices.vertexAttributeDescriptionCount = uint32_t(attributes.size());
    vertices.pVertexAttributeDescriptions = attributes.data();
    VkPipelineInputAssemblyStateCreateInfo assembly{};
    assembly.sType = VK_STRUCTURE_TYPE_PIPELINE_INPUT_ASSEMBLY_STATE_CREATE_INFO;
    assembly.topology = VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST;
    VkPipelineViewportStateCreateInfo viewport{};
    viewport.sType = VK_STRUCTURE_TYPE_PIPELINE_VIEWPORT_STATE_CREATE_INFO;
    viewport.viewportCount = 1;
    viewport.scissorCount = 1;
    VkPipelineRasterizationStateCreateInfo rasterization{};
    rasterization.sType = VK_STRUCTURE_TYPE_PIPELINE_RASTERIZATION_STATE_CREATE_INFO;
    rasterization.lineWidth = 1;
    VkPipelineMultisampleStateCreateInfo samples{};
    samples.sType = VK_STRUCTURE_TYPE_PIPELINE_MULTISAMPLE_STATE_CREATE_INFO;
    samples.rasterizationSamples = VK_SAMPLE_COUNT_1_BIT;
    VkPipelineDepthStencilStateCreateInfo depth{};
    depth.sType = VK_STRUCTURE_TYPE_PIPELINE_DEPTH_STENCIL_STATE_CREATE_INFO;
    depth.depthTestEnable = VK_TRUE;
    depth.depthWriteEnable = VK_TRUE;
    depth.depthCompareOp = VK_COMPARE_OP_LESS;
    std::vector<VkPipelineColorBlendAttachmentState> blends(targets.size());
    for (VkPipelineColorBlendAttachmentState &blend : blends)
        blend.colorWriteMask = 0xf;
    VkPipelineColorBlendStateCreateInfo blending{};
    blending.sType = VK_STRUCTURE_TYPE_PIPELINE_COLOR_BLEND_STATE_CREATE_INFO;
    blending.attachmentCount = uint32_t(blends.size());
    blending.pAttachments = blends.data();
    const VkDynamicState dynamicStates[] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR};
    VkPipelineDynamicStateCreateInfo dynamic{};
    dynamic.sType = VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO;
    dynamic.dynamicStateCount = 2;
    dynamic.pDynamicStates = dynamicStates;
    VkPipelineRenderingCreateInfo rendering{};
    rendering.sType = VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO;
    rendering.colorAttachmentCount = uint32_t(targets.size());
    rendering.pColorAttachmentFormats = targets.data();
    rendering.depthAttachmentFormat = VK_FORMAT_D32_SFLOAT;
    VkGraphicsPipelineCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    info.pNext = &rendering;
    info.flags = VK_PIPELINE_CREATE_CAPTURE_STATISTICS_BIT_KHR;
    info.stageCount = uint32_t(stages.size());
    info.pStages = stages.data();
    info.pVertexInputState = &vertices;
    info.pInputAssemblyState = &assembly;
    info.pViewportState = &viewport;
    info.pRasterizationState = &rasterization;
    info.pMultisampleState = &samples;
    info.pDepthStencilState = &depth;
    info.pColorBlendState = &blending;
    info.pDynamicState = &dynamic;
    info.layout = layout;
    VkPipeline pipeline = nullptr;
    KVO_CHECK(vkCreateGraphicsPipelines(_device, nullptr, 1, &info, nullptr, &pipeline));

    VkPipelineInfoKHR which{};
    which.sType = VK_STRUCTURE_TYPE_PIPELINE_INFO_KHR;
    which.pipeline = pipeline;
    uint32_t count = 0;
    _executables(_device, &which, &count, nullptr);
    VkPipelineExecutablePropertiesKHR emptyProperties{};
    emptyProperties.sType = VK_STRUCTURE_TYPE_PIPELINE_EXECUTABLE_PROPERTIES_KHR;
    std::vector<VkPipelineExecutablePropertiesKHR> executables(count, emptyProperties);
    _executables(_device, &which, &count, executables.data());
    for (uint32_t i = 0; i < count; ++i) {
        VkPipelineExecutableInfoKHR executable{};
        executable.sType = VK_STRUCTURE_TYPE_PIPELINE_EXECUTABLE_INFO_KHR;
        executable.pipeline = pipeline;
        executable.executableIndex = i;
        uint32_t numbers = 0;
        _statistics(_device, &executable, &numbers, nullptr);
        VkPipelineExecutableStatisticKHR emptyNumber{};
        emptyNumber.sType = VK_STRUCTURE_TYPE_PIPELINE_EXECUTABLE_STATISTIC_KHR;
        std::vector<VkPipelineExecutableStatisticKHR> values(numbers, emptyNumber);
        _statistics(_device, &executable, &numbers, values.data());
        QMap<QString, double> named;
        for (const VkPipelineExecutableStatisticKHR &value : values)
            named[QString::fromLatin1(value.name)] = value.format == VK_PIPELINE_EXECUTABLE_STATISTIC_FORMAT_FLOAT64_KHR
                                                         ? value.value.f64
                                                         : double(value.value.u64);
        named[QStringLiteral("lanes")] = executables[i].subgroupSize;
        out->emplace_back(QString::fromLatin1(executables[i].name), named);
    }
    vkDestroyPipeline(_device, pipeline, nullptr);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "gpu_cost FOLDER [FAMILY]\n");
        return 2;
    }
    const QString folder = QString::fromLocal8Bit(argv[1]);
    const QByteArray family = argc > 2 ? argv[2] : "NAVI21";
    qputenv("RADV_FORCE_FAMILY", family);
    // From NAVI on the driver counts waves of half the lanes.
    const double wavesPerCount = family.startsWith("NAVI") || family.startsWith("GFX1") ? 2 : 1;
    qputenv("RADV_DEBUG", "nocache");
    if (!qEnvironmentVariableIsSet("VK_ICD_FILENAMES"))
        qputenv("VK_ICD_FILENAMES", "/usr/share/vulkan/icd.d/radeon_icd.x86_64.json");
    if (!catchPrograms())
        return 1;
    Compiler compiler;
    if (!compiler.open())
        return 1;
    struct Row
    {
        QString name;
        QMap<QString, double> numbers;
    };
    std::vector<Row> rows;
    int failures = 0;
    for (std::size_t i = 0; i < caught.size(); ++i) {
        std::vector<Module> modules;
        std::vector<std::pair<QString, QMap<QString, double>>> stages;
        if (!translate(caught[i], folder + QStringLiteral("/%1").arg(i), &modules)
            || !compiler.compile(modules, &stages)) {
            ++failures;
            continue;
        }
        for (const auto &[stage, numbers] : stages)
            if (stage.startsWith(QLatin1String("Fragment")))
                rows.push_back({caught[i].label, numbers});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) {
        return std::pair(b.numbers[QStringLiteral("VGPRs")], b.numbers[QStringLiteral("Instructions")])
               < std::pair(a.numbers[QStringLiteral("VGPRs")], a.numbers[QStringLiteral("Instructions")]);
    });
    std::printf("%-52s %9s %7s %13s %6s %7s %8s %9s\n", "fragment stage of", "registers", "spilled", "scratch/lane",
                "waves", "instr", "latency", "inv. thr.");
    for (Row &row : rows) {
        const auto number = [&](const char *name) { return row.numbers.value(QLatin1String(name)); };
        std::printf("%-52s %9g %7g %13g %6g %7g %8g %9g\n", qPrintable(row.name), number("VGPRs"),
                    number("Spilled VGPRs") + number("Spilled SGPRs"),
                    number("Scratch size") / std::max(1.0, number("lanes")),
                    number("Subgroups per SIMD") / wavesPerCount, number("Instructions"), number("Latency"),
                    number("Inverse Throughput"));
    }
    std::printf("%zu programs of %zu\n", caught.size() - std::size_t(failures), caught.size());
    return failures ? 1 : 0;
}
