// The innermost loops of quadrature: the log-densities, residuals and weights of a level-2 unit's records at many
// nodes, written once and compiled for every set of vector instructions that a machine may have (quadratureloops.cpp).
// Four nodes are worked side by side. The order of summation is fixed, no multiplication is fused with an addition, and
// the exponential and the logarithm are its own, so every set gives the same bits on every machine.
#pragma once

#include <cstddef>

namespace kdr {

// The log-densities that the loops know: those of no trials or exposure need less arithmetic.
enum class RecordDensity { bernoulli, binomial, poisson, exposure, multinomial };

// The records of one level-2 unit at `pairs` pairs of a level-3 and a level-2 node.
struct NodePairs {
  std::size_t records, npi, dims;
  std::size_t pairs;    // a multiple of nodestep
  const double* x;      // records by npi
  const double* rows;   // records by dims: e_i, d_i
  const double* fixed;  // [records] xg_i' gamma
  const double* y;      // [records]
  const double* n;      // [records] trials, or the logarithm of the exposure; null: 1 trial
  const double* nodes;  // dims by pairs: v, u
  double* logdensity;   // [pairs] out: sum_i l_i; without the terms of the outcome alone (log n!, log y! and the like)
  double* gradient;     // npi by pairs, out: sum_i x_i r_i
  double* weights;      // records by pairs, out: w_i
  double* work;         // [pairs]
};

inline constexpr std::size_t nodestep = 4;  // nodes side by side
constexpr std::size_t padded(std::size_t n) { return (n + nodestep - 1) / nodestep * nodestep; }
inline constexpr std::size_t mostpacked = 3;  // columns of x whose products are summed at once
inline constexpr std::size_t mostresponses = 15, mostpackedresponses = 10;  // of a multinomial record; columns

// The records of one level-2 unit at all pairs of some level-3 nodes with the level-2 nodes: pair m * length + l. Nodes
// are combinations of points for each dimension; the linear predictor is fixed_i + sum_d rows_id line[point of d], with
// the dimensions of level 3 first. fixed_i is held to +-345, the sum to +-345.
struct UnitNodes {
  std::size_t records, npi;
  std::size_t dims3, dims2;
  std::size_t points, linestride;          // of a dimension; rounded up to a multiple of nodestep
  const double* line;                      // [linestride] the points, from the largest down, symmetrically about 0
  std::size_t nodes3, nodes2;              // all nodes
  const unsigned char *digits3, *digits2;  // dims by nodes: the point of a node in each dimension
  std::size_t first, segments;             // the level-3 nodes at hand
  std::size_t length, outerstride;         // nodes2 and at least `segments`, rounded up to a multiple of nodestep
  const double* x;                         // records by npi
  const double* rows;                      // records by dims3 + dims2
  const double* fixed;                     // [records], with the logarithm of the exposure
  const double* y;                         // [records]
  const double* n;                         // [records] trials; null: 1
  std::size_t stride;                      // of the rows of pairs
  double* logdensity;  // [pairs] out: sum_i l_i; without the terms of the outcome alone (log n!, log y! and the like)
  double* gradient;    // npi by pairs, out: sum_i x_i r_i
  double* weights;  // out: up to mostpacked columns sum_i w_i x_i x_i', packed, by pairs; beyond, w_i, records by pairs
  double *outer, *inner;  // records by outerstride, by length with nodestep more: work
  double* linear;         // [outerstride + length] work
  double* work;           // [(dims3 + dims2) (2 linestride + 1) + outerstride + records + nodestep]

  // A multinomial record has a linear predictor for each of its responses: rows of `fixed` and `rows` one behind the
  // other, which count as records then, and with y the indicators of their categories. x and n, how many alike one
  // stands for, are by real records, and so are the weights where not `packed`: the packed matrix of each. Column c of
  // x belongs to response[c].
  std::size_t responses = 1;
  const int* response = nullptr;  // [npi]
  bool packed = false;
};

// The records of one level-2 unit at one value of its effects, by columns, with 0 behind them.
struct RecordColumns {
  std::size_t npi, stride;     // of the columns: the records, rounded up to a multiple of nodestep
  const double* columns;       // npi by stride: x~
  const double* y;             // [stride]
  const double* n;             // [stride] trials, or 1
  const double* offset;        // [stride] of an exposure its logarithm
  const double* coefficients;  // [npi] of eta = x~'coefficients
  double* h;                   // [npi] out: sum x~ r
  double* M;                   // packed npi(npi+1)/2, out: sum W x~x~'
  double* D;                   // [stride] dW/deta, out, or null
  double* work;                // [4 (npi + npi(npi+1)/2)]

  // Multinomial: y is the category, from 0; D are the probabilities, responses by stride.
  std::size_t responses = 1;
  const int* response = nullptr;  // [npi] that a column belongs to; null of other outcomes
};

// Logits of records, from which quasi-likelihood goes on: w = n mu (1 - mu), z = eta + (y - n mu) / w.
struct LogitRecords {
  std::size_t stride = 0;       // the records, rounded up to a multiple of nodestep; eta is 0 and n is 1 behind them
  const double* eta = nullptr;  // none of them beyond 700
  const double* y = nullptr;
  const double* n = nullptr;             // trials; null: 1
  double largest = 0.0;                  // w is held to it
  double least = 0.0;                    // the least weight that has a say
  double *z = nullptr, *root = nullptr;  // out: z, and the root of w
  long long held = 0, mute = 0;          // out: records whose w is held, and whose is below the least
};

// The weights of level-2 nodes for each level-3 node of a block.
struct NodeWeights {
  std::size_t dims, segments, length;
  std::size_t stride;    // of the rows of nodes
  const double* nodes;   // dims by segments by length: z
  const double* weight;  // [length] 0 for what is no node
  double* logs;          // in: log-densities, out: the weights, with a sum of 1 in each segment
  double* totals;        // [segments, rounded up] out: the logarithms of the sums
  double* largest;       // [the same] work
};

// Weighted sums of rows over segments of equal length, the level-2 nodes of one level-3 node after the other.
struct SegmentSums {
  std::size_t rows, sets;
  bool lower;         // only the first row + 2 sets of each row: those of a triangle behind the set of the means
  std::size_t pairs;  // stride of rows and sets
  std::size_t segments, length;  // a multiple of nodestep
  const double* values;          // rows by pairs
  const double* weights;         // sets by pairs
  double* sums;  // out: that of segment m, row i and set s at m * stride + i * rowstride + s * setstride
  std::size_t stride, rowstride, setstride;
};

struct QuadratureLoops {
  // The log-densities alone, by RecordDensity.
  void (*density[4])(const NodePairs&);
  // Log-densities, gradient and weights.
  void (*moments[4])(const NodePairs&);
  // The same, of densities that are not held at a least probability, by the two parts of the predictor.
  void (*exact[5])(const UnitNodes&);
  // The sum of the log-densities at one predictor a record, without the terms of the outcome alone, and h, M and D.
  double (*recordsums[5])(const RecordColumns&);
  // t (npi) := -1/2 sum_i D_i x_i x_i'Q x_i with Q npi squared; multinomial: -1/2 sum_i X_i'(d tr(W_i X_i Q X_i') / d
  // eta_i), where X_i has a row for each predictor.
  void (*formsums)(const RecordColumns&, const double* Q, double* t);
  void (*workinglogits)(LogitRecords&);
  void (*segmentsums)(const SegmentSums&);
  void (*nodeweights)(const NodeWeights&);
  // Of a multiple of nodestep values: to := a b, element by element; sum += factor values.
  void (*products)(const double* a, const double* b, double* to, std::size_t n);
  void (*addmultiple)(double* sum, const double* values, std::size_t n, double factor);
  // In place, for a multiple of nodestep values. The exponent is held to [-708, 709]; logarithms are of positive normal
  // numbers. Both are within a few units in the last place.
  void (*exponentials)(double* values, std::size_t n);
  void (*logarithms)(double* values, std::size_t n);
};

// The loops in the instructions that every machine of the kind has, and in wider ones.
namespace baseline {
extern const QuadratureLoops quadratureloops;
}
namespace avx2 {
extern const QuadratureLoops quadratureloops;
}

// The fastest loops that this machine can run.
[[nodiscard]] const QuadratureLoops& fastestquadratureloops();

}  // namespace kdr
