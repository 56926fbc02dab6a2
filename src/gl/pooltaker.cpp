#include "gl/pooltaker.h"

#include <utility>

namespace Brevane::Kvo {

namespace {

thread_local const QString *taker = nullptr;

} // namespace

PoolTaker::PoolTaker(const QString &name) : _before(std::exchange(taker, &name)) {}

PoolTaker::~PoolTaker()
{
    taker = _before;
}

QString PoolTaker::current()
{
    return taker ? *taker : QString();
}

} // namespace Brevane::Kvo
