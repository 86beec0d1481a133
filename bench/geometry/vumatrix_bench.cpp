// 4 x 4 matrix products, beside the plain version and GLM, which sums in single precision. Batches multiply each of so many
// matrices by one of its own; chains multiply one matrix by all of them in turn. `product` is seconds for one.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <glm/glm.hpp>

#include <tolvin/bench/geometry/plainmatrix.h>
#include <tolvin/geometry/vumatrix.h>

namespace
{

struct Matrix
{
    vuMatrix m;
};

void vuProduct(Matrix &a, const Matrix &b)
{
    vuMakePostMultiplication(a.m, b.m);
}

void plainProduct(Matrix &a, const Matrix &b)
{
    vuMatrix product;
    plain::multiply(product, a.m, b.m);
    memcpy(a.m, product, sizeof product);
}

// Columns of GLM are our rows, so that its product in the other order is ours.
void glmProduct(glm::mat4 &a, const glm::mat4 &b)
{
    a = b * a;
}

// GLM with our sums and rounding.
void glmProductInDouble(glm::mat4 &a, const glm::mat4 &b)
{
    a = glm::mat4(glm::dmat4(b) * glm::dmat4(a));
}

// Rotations, which can be multiplied on and on.
template<class M>
std::vector<M> rotations(size_t count, unsigned seed)
{
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> angle(-180, 180);
    std::vector<M> result(count);
    for (M &each : result)
    {
        vuMatrix x, y, z;
        vuMakeXRotationMatrix(x, angle(engine));
        vuMakeYRotationMatrix(y, angle(engine));
        vuMakeZRotationMatrix(z, angle(engine));
        vuMakePostMultiplication(x, y);
        vuMakePostMultiplication(x, z);
        static_assert(sizeof each == sizeof x);
        memcpy(static_cast<void *>(&each), x, sizeof x);
    }
    return result;
}

void rateProducts(benchmark::State &state)
{
    using benchmark::Counter;
    state.counters["product"] =
        Counter(static_cast<double>(state.range(0)), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

template<class M>
void expectEqual(benchmark::State &state, const M &product, const Matrix &expected)
{
    float elements[16];
    memcpy(elements, &product, sizeof elements);
    for (size_t i = 0; i < 16; ++i)
    {
        if (!(std::abs(elements[i] - expected.m[i / 4][i % 4]) < 1e-6F))
        {
            state.SkipWithError("wrong product");
        }
    }
}

template<class M, void multiply(M &, const M &)>
void Batch(benchmark::State &state)
{
    const auto count = static_cast<size_t>(state.range(0));
    std::vector<M> a = rotations<M>(count, 1);
    const std::vector<M> b = rotations<M>(count, 2);
    Matrix expected = rotations<Matrix>(1, 1)[0];
    plainProduct(expected, rotations<Matrix>(1, 2)[0]);
    M first = a[0];
    multiply(first, b[0]);
    expectEqual(state, first, expected);
    for (auto _ : state)
    {
        for (size_t i = 0; i < count; ++i)
        {
            multiply(a[i], b[i]);
        }
        benchmark::ClobberMemory();
    }
    rateProducts(state);
}

template<class M, void multiply(M &, const M &)>
void Chain(benchmark::State &state)
{
    const std::vector<M> b = rotations<M>(static_cast<size_t>(state.range(0)), 2);
    M a = rotations<M>(1, 1)[0];
    for (auto _ : state)
    {
        for (const M &each : b)
        {
            multiply(a, each);
        }
        benchmark::DoNotOptimize(a);
    }
    rateProducts(state);
}

BENCHMARK_TEMPLATE(Batch, Matrix, vuProduct)->Name("Batch")->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(Batch, glm::mat4, glmProduct)->Name("BatchGlm")->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(Batch, glm::mat4, glmProductInDouble)->Name("BatchGlmInDouble")->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(Batch, Matrix, plainProduct)->Name("BatchPlain")->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(Chain, Matrix, vuProduct)->Name("Chain")->Arg(1000);
BENCHMARK_TEMPLATE(Chain, glm::mat4, glmProduct)->Name("ChainGlm")->Arg(1000);
BENCHMARK_TEMPLATE(Chain, glm::mat4, glmProductInDouble)->Name("ChainGlmInDouble")->Arg(1000);
BENCHMARK_TEMPLATE(Chain, Matrix, plainProduct)->Name("ChainPlain")->Arg(1000);

} // namespace
