#include "importrepair.h"

#include <assimp/mesh.h>
#include <assimp/scene.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace Brevane::Kvo {

namespace {

// Larger numbers overflow as soon as they are squared.
constexpr float kLargest = 1e18f;

bool isUsable(const aiVector3D &v)
{
    return std::abs(v.x) <= kLargest && std::abs(v.y) <= kLargest && std::abs(v.z) <= kLargest;
}

enum class Verdict { Keep, NotASurface, OutOfRange, NotFinite };

Verdict judge(const aiFace &face, const aiMesh &mesh)
{
    if (face.mNumIndices < 3 || !face.mIndices)
        return Verdict::NotASurface;
    const unsigned *begin = face.mIndices, *end = begin + face.mNumIndices;
    if (std::any_of(begin, end, [&](unsigned i) { return i >= mesh.mNumVertices; }))
        return Verdict::OutOfRange;
    if (std::any_of(begin, end, [&](unsigned i) { return !isUsable(mesh.mVertices[i]); }))
        return Verdict::NotFinite;
    return Verdict::Keep;
}

void repairFaces(aiMesh *mesh, QStringList *warnings)
{
    unsigned counts[4] = {0, 0, 0, 0};
    unsigned kept = 0;
    mesh->mPrimitiveTypes = 0;
    const unsigned faces = mesh->mFaces && mesh->mVertices ? mesh->mNumFaces : 0;
    for (unsigned i = 0; i < faces; ++i) {
        aiFace &face = mesh->mFaces[i];
        const Verdict verdict = judge(face, *mesh);
        ++counts[int(verdict)];
        if (verdict != Verdict::Keep)
            continue;
        mesh->mPrimitiveTypes |= face.mNumIndices == 3 ? aiPrimitiveType_TRIANGLE : aiPrimitiveType_POLYGON;
        std::swap(mesh->mFaces[kept].mIndices, face.mIndices);
        std::swap(mesh->mFaces[kept].mNumIndices, face.mNumIndices);
        ++kept;
    }
    mesh->mNumFaces = kept;
    const auto warn = [&](Verdict verdict, const char *what) {
        if (const unsigned count = counts[int(verdict)])
            *warnings << QStringLiteral("mesh '%1': left out %2 %3")
                             .arg(QString::fromUtf8(mesh->mName.C_Str()), QString::number(count),
                                  QLatin1StringView(what));
    };
    warn(Verdict::NotASurface, "points and lines");
    warn(Verdict::OutOfRange, "faces with vertices that do not exist");
    warn(Verdict::NotFinite, "faces with vertices that are not finite");
}

// Of vertices that no face uses any more too: later steps compare all of them.
void repairVectors(aiVector3D *vectors, unsigned count, const aiVector3D &replacement)
{
    if (vectors)
        std::replace_if(
            vectors, vectors + count, [](const aiVector3D &v) { return !isUsable(v); }, replacement);
}

void repairVertices(aiMesh *mesh)
{
    repairVectors(mesh->mVertices, mesh->mNumVertices, aiVector3D());
    repairVectors(mesh->mNormals, mesh->mNumVertices, aiVector3D());
    for (aiVector3D *texCoords : mesh->mTextureCoords)
        repairVectors(texCoords, mesh->mNumVertices, aiVector3D());
}

void removeMeshes(aiScene *scene, const std::vector<bool> &removed)
{
    std::vector<unsigned> newIndex(scene->mNumMeshes);
    unsigned kept = 0;
    for (unsigned i = 0; i < scene->mNumMeshes; ++i) {
        if (removed[i]) {
            delete scene->mMeshes[i];
            continue;
        }
        newIndex[i] = kept;
        scene->mMeshes[kept++] = scene->mMeshes[i];
    }
    std::vector<aiNode *> nodes{scene->mRootNode};
    while (!nodes.empty()) {
        aiNode *node = nodes.back();
        nodes.pop_back();
        // Some readers leave gaps.
        aiNode **lastChild = std::remove(node->mChildren, node->mChildren + node->mNumChildren, nullptr);
        node->mNumChildren = unsigned(lastChild - node->mChildren);
        unsigned *end = std::remove_if(node->mMeshes, node->mMeshes + node->mNumMeshes,
                                       [&](unsigned i) { return i >= scene->mNumMeshes || removed[i]; });
        node->mNumMeshes = unsigned(end - node->mMeshes);
        std::for_each(node->mMeshes, end, [&](unsigned &i) { i = newIndex[i]; });
        nodes.insert(nodes.end(), node->mChildren, node->mChildren + node->mNumChildren);
    }
    scene->mNumMeshes = kept;
}

} // namespace

void repairScene(aiScene *scene, QStringList *warnings)
{
    std::vector<bool> removed(scene->mNumMeshes);
    for (unsigned i = 0; i < scene->mNumMeshes; ++i) {
        aiMesh *mesh = scene->mMeshes[i];
        removed[i] = !mesh;
        if (!mesh)
            continue;
        repairFaces(mesh, warnings);
        repairVertices(mesh);
        removed[i] = mesh->mNumFaces == 0;
    }
    removeMeshes(scene, removed);
}

} // namespace Brevane::Kvo
