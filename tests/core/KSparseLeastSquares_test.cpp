// Sparse least squares: solutions against a dense solve of the normal equations, refactoring with
// new values, the breakdown column of a singular system, thread independence and cleanup.

#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

#include "KSparseLeastSquares.h"

using namespace Kavrin;

namespace {

// A tall sparse matrix: row r holds up to four distinct columns picked from r; values vary with seed.
struct Problem {
    int rows, cols;
    KIntArray rowStart{0}, colIndex;
    std::vector<double> values, b;
    Problem(int rows_, int cols_, int seed) : rows(rows_), cols(cols_) {
        for (int r = 0; r < rows; ++r) {
            for (int c : {r % cols, (3 * r + 1) % cols, (7 * r + 2) % cols, (r / 2) % cols}) {
                bool seen = false;
                for (int q = rowStart[r]; q < colIndex.length(); ++q) seen = seen || colIndex[q] == c;
                if (seen) continue;
                colIndex.push_back(c);
                values.push_back(std::sin(0.37 * colIndex.length() + seed) + (c == r % cols ? 2.0 : 0.0));
            }
            rowStart.push_back(colIndex.length());
        }
        for (int k = 0; k < 2 * rows; ++k) b.push_back(std::cos(0.11 * k * seed + 0.2));
    }
    // Dense normal equations solved by Gaussian elimination with partial pivoting.
    std::vector<double> dense(int rhs) const {
        std::vector<std::vector<double>> m(cols, std::vector<double>(cols + 1, 0.0));
        for (int r = 0; r < rows; ++r)
            for (int p = rowStart[r]; p < rowStart[r + 1]; ++p) {
                for (int q = rowStart[r]; q < rowStart[r + 1]; ++q) m[colIndex[p]][colIndex[q]] += values[p] * values[q];
                m[colIndex[p]][cols] += values[p] * b[rhs * rows + r];
            }
        for (int i = 0; i < cols; ++i) {
            int best = i;
            for (int j = i + 1; j < cols; ++j)
                if (std::fabs(m[j][i]) > std::fabs(m[best][i])) best = j;
            std::swap(m[i], m[best]);
            for (int j = 0; j < cols; ++j)
                if (j != i) {
                    const double f = m[j][i] / m[i][i];
                    for (int k = i; k <= cols; ++k) m[j][k] -= f * m[i][k];
                }
        }
        std::vector<double> x(cols);
        for (int i = 0; i < cols; ++i) x[i] = m[i][cols] / m[i][i];
        return x;
    }
};

}  // namespace

TEST(SparseLeastSquares, SolvesLikeTheDenseNormalEquationsAndRefactors) {
    KSparseLeastSquares ls;
    Problem p(120, 40, 1);
    ASSERT_TRUE(ls.analyse(p.cols, p.rowStart, p.colIndex, 2).ok());
    const long held = ls.libraryObjects();
    for (int seed : {1, 5, 9}) {
        Problem q(120, 40, seed);  // same pattern, new values and right-hand sides
        ASSERT_TRUE(ls.factor(q.values.data()).ok());
        std::vector<double> x(2 * q.cols);
        ASSERT_TRUE(ls.solve(q.b.data(), 2, x.data()).ok());
        for (int rhs = 0; rhs < 2; ++rhs) {
            const std::vector<double> expected = q.dense(rhs);
            for (int i = 0; i < q.cols; ++i) ASSERT_NEAR(x[rhs * q.cols + i], expected[i], 1e-10) << seed;
        }
    }
    // The solve keeps its work objects: a second round allocates nothing more.
    std::vector<double> x(2 * p.cols);
    ASSERT_TRUE(ls.solve(p.b.data(), 2, x.data()).ok());
    const long after = ls.libraryObjects();
    ASSERT_TRUE(ls.solve(p.b.data(), 2, x.data()).ok());
    EXPECT_EQ(ls.libraryObjects(), after);
    EXPECT_GE(after, held);

    // Kept for solves only: the same bits from a smaller context, and no factor until analysed again.
    ls.keepSolvesOnly();
    EXPECT_LT(ls.libraryObjects(), after);
    std::vector<double> kept(2 * p.cols);
    ASSERT_TRUE(ls.solve(p.b.data(), 2, kept.data()).ok());
    EXPECT_EQ(kept, x);
    const KSparseStatus refused = ls.factor(p.values.data());
    EXPECT_EQ(refused.code, KSparseStatus::kLibraryError);
    EXPECT_EQ(refused.report, "cholmod error: the normal equations were kept for solves only\n");
    ASSERT_TRUE(ls.analyse(p.cols, p.rowStart, p.colIndex, 2).ok());
    EXPECT_TRUE(ls.factor(p.values.data()).ok());
}

TEST(SparseLeastSquares, ReportsTheColumnWhereASingularSystemBreaksDown) {
    // Column 7 appears in no row; column 3 in a row with only zeros.
    for (int missing : {7, 3}) {
        Problem p(60, 20, 2);
        for (int q = 0; q < p.colIndex.length(); ++q)
            if (p.colIndex[q] == missing) p.values[q] = 0.0;
        KSparseLeastSquares ls;
        ASSERT_TRUE(ls.analyse(p.cols, p.rowStart, p.colIndex, 1).ok());
        const KSparseStatus s = ls.factor(p.values.data());
        EXPECT_EQ(s.code, KSparseStatus::kSingular);
        EXPECT_EQ(s.column, missing);
        EXPECT_FALSE(ls.factored());
        std::vector<double> x(p.cols);
        EXPECT_EQ(ls.solve(p.b.data(), 1, x.data()).code, KSparseStatus::kLibraryError) << "no factorisation to use";
        // The same object factors good values afterwards.
        Problem good(60, 20, 2);
        EXPECT_TRUE(ls.factor(good.values.data()).ok());
    }
}

TEST(SparseLeastSquares, ResultsDependNeitherOnTheThreadCountNorOnObjectsAtWorkAlongside) {
    // Two nodes may evaluate at the same time: each object, and the BLAS beneath the supernodal
    // factorisation, must then give what one object alone gives. (Debian's single-threaded OpenBLAS
    // build fails this: its work buffers are shared between calling threads.)
    const int n = 70, cols = n * n;
    KIntArray rowStart{0}, colIndex;
    std::vector<double> values;
    for (int i = 0; i < cols; ++i) {
        for (int c : {i, (i + 1) % cols, (i + n) % cols}) {
            colIndex.push_back(c);
            values.push_back(std::sin(0.1 * colIndex.length()) + (c == i ? 3.0 : 0.0));
        }
        rowStart.push_back(colIndex.length());
    }
    std::vector<double> b(3 * static_cast<size_t>(cols));
    for (size_t k = 0; k < b.size(); ++k) b[k] = std::cos(0.3 * k);
    auto run = [&](std::vector<double>& x, int threads) {
        KSparseLeastSquares ls;
        bool ok = ls.analyse(cols, rowStart, colIndex, threads).ok();
        for (int i = 0; i < 3 && ok; ++i) ok = ls.factor(values.data()).ok() && ls.solve(b.data(), 3, x.data()).ok();
        if (!ok) x.clear();
    };
    std::vector<double> reference(b.size()), two(b.size());
    run(reference, 1);
    run(two, 2);
    ASSERT_FALSE(reference.empty());
    EXPECT_TRUE(two == reference);
    for (int round = 0; round < 2; ++round) {
        std::vector<std::vector<double>> x(4, std::vector<double>(reference.size()));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) threads.emplace_back([&, t] { run(x[t], 1); });
        for (std::thread& t : threads) t.join();
        for (int t = 0; t < 4; ++t) ASSERT_TRUE(x[t] == reference) << "round " << round << ", thread " << t;
    }
}
