/* KDR3 as a library: three-level multilevel models from arrays or from an MDM file.
 *
 * The way through it:
 *
 *   kdr3_data_make     columns in memory, in any order of rows       or kdr3_data_open, an MDM file
 *   kdr3_model_make    the outcome; then kdr3_model_level1, _level2, _level3: the equations, term by term
 *   kdr3_model_set     what differs from the defaults, by the names of the guide's keywords
 *   kdr3_formula_make  in the place of these three: a formula and a table give the data and the model
 *   kdr3_fit           the estimation; an observer sees it and may stop it
 *   kdr3_result_...    estimates, covariances, warnings as arrays and sentences
 *   kdr3_..._free      each handle, in any order
 *
 * Every function that can fail returns a status: KDR3_OK, KDR3_WARNING (there is a result, and kdr3_result_warning says
 * what is wrong with it) or KDR3_ERROR (nothing was made; kdr3_message tells why in a sentence). A null pointer for a
 * result that is not wanted is taken everywhere, and freeing a null handle does nothing.
 *
 * Nothing here prints, asks, ends the process, or keeps a state but that of the handles: fits may run in several
 * threads at once, each on handles of its own; one data handle may serve several fits at once.
 */
#ifndef KDR3_KDR3_H
#define KDR3_KDR3_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define KDR3_PUBLIC __attribute__((visibility("default")))
#else
#define KDR3_PUBLIC
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Rises when a struct or a function changes its meaning; additions leave it. */
#define KDR3_ABI 1
KDR3_PUBLIC int kdr3_abi(void);
/* "7.1.0": that of the library and of the packages. */
KDR3_PUBLIC const char* kdr3_version(void);

typedef enum { KDR3_OK = 0, KDR3_WARNING = 1, KDR3_ERROR = 2 } kdr3_status;

/* The sentence of the last error in this thread, "" before the first one. Valid until the next call in the thread. */
KDR3_PUBLIC const char* kdr3_message(void);

/* ---- Data ------------------------------------------------------------------------------------------------------ */

typedef struct kdr3_data kdr3_data;

typedef enum { KDR3_DOUBLE, KDR3_FLOAT, KDR3_INT32, KDR3_INT64, KDR3_TEXT } kdr3_type;

/* One column of a table with a row for each level-1 record. */
typedef struct {
  const char* name;             /* in UTF-8, of any length; columns differ in it */
  int level;                    /* 1, 2 or 3: columns of level 2 and 3 have one value within each unit */
  kdr3_type type;               /* KDR3_TEXT, zero-terminated texts, for IDs only */
  const void* values;           /* [records] of that type; const char* const* for KDR3_TEXT */
  ptrdiff_t stride;             /* bytes from one value to the next; 0: they stand side by side */
  const unsigned char* missing; /* [records] not 0: the value is missing; may be null. A NaN is missing as well */
} kdr3_column;

/* Makes a data set of `count` columns over `records` rows. Rows may come in any order; units stand in the order in
 * which their IDs first appear, level-2 units within their level-3 unit: the same level-2 ID in two level-3 units is
 * two units. The values are copied. Errors: a missing or doubled name, an ID that is missing, a value that is not
 * finite, a column of level 2 or 3 that varies within a unit, a missing value in one. Missing values of level 1 are
 * passed over by the models that use the column. With a null level3id the data have two levels: a model of them has no
 * terms of level 3, and its level-2 terms are the fixed effects. */
KDR3_PUBLIC kdr3_status kdr3_data_make(size_t records, size_t count, const kdr3_column* columns,
                                       const kdr3_column* level2id, const kdr3_column* level3id, kdr3_data** data);

/* Opens an MDM file. Its variables have the names that the file has, eight letters at the most. */
KDR3_PUBLIC kdr3_status kdr3_data_open(const char* path, kdr3_data** data);

/* Records and units: sizes[0] level-1 records, sizes[1] level-2 units, sizes[2] level-3 units, 0 in data
 * of two levels. */
KDR3_PUBLIC kdr3_status kdr3_data_sizes(const kdr3_data* data, size_t sizes[3]);

KDR3_PUBLIC void kdr3_data_free(kdr3_data* data);

/* ---- Model ----------------------------------------------------------------------------------------------------- */

typedef struct kdr3_model kdr3_model;

typedef enum { KDR3_RAW = 0, KDR3_GROUPMEAN = 1, KDR3_GRANDMEAN = 2 } kdr3_centering;

typedef enum { KDR3_NORMAL, KDR3_BERNOULLI, KDR3_BINOMIAL, KDR3_POISSON, KDR3_MULTINOMIAL, KDR3_ORDINAL } kdr3_family;

/* A model of `data`, which has to live as long as the model. `counts` names the column of trials (binomial) or exposure
 * (Poisson), null without one; `categories` is for multinomial and ordinal outcomes. Without a term the model is empty.
 */
KDR3_PUBLIC kdr3_status kdr3_model_make(const kdr3_data* data, const char* outcome, kdr3_family family,
                                        const char* counts, int categories, kdr3_model** model);

/* Adds the level-1 coefficient of a variable, null for the intercept; `random`: it varies between level-2 units. Its
 * number, from 0 in the order of the calls, goes to `coefficient`. */
KDR3_PUBLIC kdr3_status kdr3_model_level1(kdr3_model* model, const char* variable, kdr3_centering centering, int random,
                                          int* coefficient);
/* Adds a term to the level-2 equation of a level-1 coefficient, null for its intercept; `random`: its coefficient
 * varies between level-3 units. The number goes to `term`. */
KDR3_PUBLIC kdr3_status kdr3_model_level2(kdr3_model* model, int coefficient, const char* variable,
                                          kdr3_centering centering, int random, int* term);
/* Adds a term to the level-3 equation of a level-2 coefficient, null for its intercept: one fixed effect. */
KDR3_PUBLIC kdr3_status kdr3_model_level3(kdr3_model* model, int term, const char* variable, kdr3_centering centering);

/* Sets a control by the name of its keyword, without regard to case: NUMIT, MACROIT, MICROIT, STOPVAL, STOPMICRO,
 * STOPMACRO, ACCEL, FISHERTYPE, REML (1: restricted likelihood), DDF (degrees of freedom: 0 counts, 1 Satterthwaite,
 * 2 Kenward and Roger), DDFOBSERVED, EDGECOVFULL, CR2, PROFILE and SHARES (0 or 1, as DDF:...,OBSERVED, EDGECOV:FULL,
 * ROBUST:CR2, PROFILE:Y and SHARES:Y; what they add is in the results document),
 * FIXSIGMA2 (0 frees it; an engine or categories hold it at 1), DIAGONALIZETAUPI, DIAGONALIZETAUBETA (0 or 1), LAPLACE
 * (most iterations, 0 is off), AGQ (points, 0 is off), AGQIT (most iterations), AGQAUTO (1: as many points as the data
 * need), AGQNODESFIXED (0 or 1, as AGQNODES:FIXED), AGQDERIVLEVEL, POPAVIT, THREADS (0: one for each core), WEIGHTSCALE
 * (1: design weights to means of 1, 0: as they stand). Errors: an unknown name, a value that the keyword refuses. */
KDR3_PUBLIC kdr3_status kdr3_model_set(kdr3_model* model, const char* name, double value);

/* Design weights by the names of their columns, null for none, and the column of a known level-1 variance. */
KDR3_PUBLIC kdr3_status kdr3_model_weights(kdr3_model* model, const char* level1, const char* level2,
                                           const char* level3, const char* knownvariance);

/* Fixed effects that are to be equal: groups[i] is the group of fixed effect i, 0 for one that is free, in the order of
 * kdr3_result_fixed; `count` is their number. Groups are numbered from 1 in the order of their first members. The
 * result has one fixed effect for each group, in the place of its first member. */
KDR3_PUBLIC kdr3_status kdr3_model_constrain(kdr3_model* model, size_t count, const int* groups);

/* Adds a hypothesis, that all of `rows` contrasts are 0: contrasts [rows * count], row by row, a number for each of the
 * `count` fixed effects in the order of kdr3_result_fixed, those that a constraint makes equal all of them. */
KDR3_PUBLIC kdr3_status kdr3_model_hypothesis(kdr3_model* model, size_t rows, size_t count, const double* contrasts);

/* Restricts tau(pi) (level 2) or tau(beta) (level 3), of order `order`: fixed [order * order] has the value that an
 * element is held at, NaN where it is free; groups [order * order] the number of the group of equal elements that it
 * belongs to, 0 for none. Both are symmetric, either may be null. What was said before of this tau is forgotten. */
KDR3_PUBLIC kdr3_status kdr3_model_restrict(kdr3_model* model, int level, size_t order, const double* fixed,
                                            const int* groups);

/* Starting values in the order of the results: gamma [g], taupi [p * p], taubeta [b * b], sigma2. A fit of nearly the
 * same data that starts where another ended takes a few iterations. Of normal outcomes only. */
KDR3_PUBLIC kdr3_status kdr3_model_start(kdr3_model* model, size_t g, const double* gamma, size_t p,
                                         const double* taupi, size_t b, const double* taubeta, double sigma2);

/* Fits of the model are followed by a bootstrap of so many replicates, 0 for none: outcomes drawn from the fit, or with
 * `cases` its level-3 units (of two levels those of level 2) drawn with replacement. The results document then has its
 * intervals, and kdr3_result_replicates the estimates. The seed alone tells what is drawn, whatever the number of
 * threads, which is that of THREADS. Errors: a model that has none, as with design weights. */
KDR3_PUBLIC kdr3_status kdr3_model_bootstrap(kdr3_model* model, int replicates, uint64_t seed, int cases);

/* Asks for a latent variable regression: random level-2 coefficients regressed on others, from the estimates of the
 * fit. `roles` has a letter for each coefficient that varies between level-3 units, in the order of tau(beta): O
 * outcome, P predictor, I ignore; null asks for none. The results document has it as `latent_regression`. */
KDR3_PUBLIC kdr3_status kdr3_model_latent(kdr3_model* model, const char* roles);

KDR3_PUBLIC void kdr3_model_free(kdr3_model* model);

/* ---- Formulas -------------------------------------------------------------------------------------------------- */

/* A formula in the language of -fit (docs/formulas.md) with the data and the model that it makes of a table. */
typedef struct kdr3_formula kdr3_formula;

/* A column of a table with a row for each record, as a formula names it. Set `size` to sizeof(kdr3_field). */
typedef struct {
  size_t size;
  const char* name;
  kdr3_type type;     /* KDR3_TEXT: names, of a factor or of units; or an integer type with labels */
  const void* values; /* as those of kdr3_column, with its stride and its missing values */
  ptrdiff_t stride;
  const unsigned char* missing;
  const char* const* labels; /* [labelcount] names of the codes first, first + 1, ...; other codes are missing values */
  size_t labelcount;
  int first;
  int ordered; /* 1: the labels stand in the order of the factor's levels; 0: by the alphabet */
} kdr3_field;

/* What stands beside the formula, as the options of -fit do; null for none. Set `size` to sizeof(kdr3_options). */
typedef struct {
  size_t size;
  const char *family, *engine, *points;
  const char *trials, *exposure, *offset;     /* columns; an offset is added to what offset() says */
  const char *weights1, *weights2, *weights3; /* columns of design weights */
} kdr3_options;

/* The columns that a formula names, in its order and each once, as kdr3_formula_text hands them out by KDR3_COLUMNS of
 * the handle, which has neither data nor model; a table needs these alone. */
KDR3_PUBLIC kdr3_status kdr3_formula_read(const char* formula, kdr3_formula** made);

/* Makes data and model. Records with a missing value of what the formula uses are left out, and said to be. Errors:
 * what the formula, or a table that it cannot be fitted to, is refused with, in lines of text, the second and third of
 * which may be the place in the formula with carets under it. */
KDR3_PUBLIC kdr3_status kdr3_formula_make(const char* formula, const kdr3_options* options, size_t records,
                                          size_t count, const kdr3_field* fields, kdr3_formula** made);

/* The model, for kdr3_model_set and its like, and for kdr3_fit. It lives as long as the formula. */
KDR3_PUBLIC kdr3_model* kdr3_formula_model(kdr3_formula* formula);

typedef enum {
  KDR3_COLUMNS,    /* the columns that the formula names */
  KDR3_REMARKS,    /* what it made of the table, a sentence each: factors, records left out */
  KDR3_WARNINGS,   /* those of them that a reader of the results has to know */
  KDR3_EFFECTS,    /* the columns of the model matrix, under the names and in the order of R */
  KDR3_TERMS,      /* the term that each of these is a column of: "year:sex" */
  KDR3_RANDOM2,    /* the random effects of level 2, in the order of tau(pi), and */
  KDR3_RANDOM3,    /* those of level 3, in the order of tau(beta), by the columns that they multiply */
  KDR3_GROUPINGS,  /* "school:pupil", the grouping of level 2, and that of level 3 where there is one */
  KDR3_GROUPS2,    /* the columns that together tell a unit of level 2, and */
  KDR3_GROUPS3,    /* of level 3 */
  KDR3_OUTCOME,    /* the outcome as the formula has it; the family; the engine: "", "pql", "laplace6", "quadrature" */
  KDR3_LEVELS,     /* the values of an outcome with names, in their order: the second of two is the event */
  KDR3_OFFSETS,    /* none; of kdr3_formula_matrix a column of what is added to the linear predictor */
  KDR3_VARIABLES1, /* the variables of the equations of level 1, by the names that the results document has, */
  KDR3_VARIABLES2, /* of level 2, and */
  KDR3_VARIABLES3  /* of level 3 */
} kdr3_words;
/* The i-th of these words, null behind the last. Valid as long as the formula. */
KDR3_PUBLIC const char* kdr3_formula_text(const kdr3_formula* formula, kdr3_words words, size_t i);

/* places [effects]: the place that column i of the model matrix has among the fixed effects of a result, of an outcome
 * without categories. With them the thresholds of an ordinal one come behind all others, and the effects of a
 * multinomial one stand there for each category in turn. */
KDR3_PUBLIC kdr3_status kdr3_formula_order(const kdr3_formula* formula, size_t* places);

/* The records that the model uses, in the order of their units, which is that of the results: their rows in the table,
 * and the number of the unit of each at levels 2 and 3. `count` gets how many they are; the others may be null. */
KDR3_PUBLIC kdr3_status kdr3_formula_records(const kdr3_formula* formula, size_t* count, size_t* rows, size_t* unit2,
                                             size_t* unit3);

/* The columns of KDR3_EFFECTS, KDR3_RANDOM2, KDR3_RANDOM3 or KDR3_VARIABLES1 to 3, or the one of KDR3_OFFSETS (offsets,
 * or the logarithm of the exposure; 0 without either), over the rows of a table, [records * columns] row by row, with
 * the factors, means, scales and polynomials of the data that the model was made of; NaN in a row with a missing value
 * or a level that those data have not. A unit of those data keeps its means, a new one has those of its rows. Without
 * fields they are those of the model's own records, in the order of kdr3_formula_records. Errors: a missing column. */
KDR3_PUBLIC kdr3_status kdr3_formula_matrix(const kdr3_formula* formula, kdr3_words part, size_t records, size_t count,
                                            const kdr3_field* fields, double* values);

/* The outcome, the trials or exposure (1 without), and what was taken off a normal outcome as its offset (0 without),
 * of the records of the model: each [count], or null. */
KDR3_PUBLIC kdr3_status kdr3_formula_outcome(const kdr3_formula* formula, double* outcome, double* counts,
                                             double* offset);

KDR3_PUBLIC void kdr3_formula_free(kdr3_formula* formula);

/* ---- Fit ------------------------------------------------------------------------------------------------------- */

/* What sees a fit. Set `size` to sizeof(kdr3_observer); any function may be null. All are called in the thread of
 * kdr3_fit, between the steps of the estimation. */
typedef struct {
  size_t size;
  void* state;                                         /* handed to each function */
  int (*stop)(void* state);                            /* asked between two iterations: not 0 ends the fit there */
  void (*progress)(void* state, const char* sentence); /* a line for someone who waits */
  int (*abandon)(void* state);                         /* asked at many places: not 0 gives the fit up, an error */
} kdr3_observer;

/* A function for `stop` or `abandon` whose state is an int that another thread, or a signal, sets. */
KDR3_PUBLIC int kdr3_raised(void* flag);

typedef struct kdr3_result kdr3_result;

/* Estimates the model. A stop by the observer, or a limit, leaves a result that is not converged, with KDR3_WARNING. */
KDR3_PUBLIC kdr3_status kdr3_fit(const kdr3_model* model, const kdr3_observer* observer, kdr3_result** result);

/* ---- Results --------------------------------------------------------------------------------------------------- */

/* Set `size` to sizeof(kdr3_summary) before the call. */
typedef struct {
  size_t size;
  int converged;           /* 1: by its own rule */
  int iterations;          /* of the last pass; of a non-linear model its macro iterations */
  size_t records;          /* used by the model */
  size_t units2, units3;   /* likewise */
  size_t fixedeffects;     /* g */
  size_t random2, random3; /* orders p of tau(pi) and b of tau(beta) */
  size_t parameters;
  double loglikelihood; /* NaN where the method has none (quasi-likelihood) */
  double sigma2;        /* level-1 variance, 1 where it is held there */
} kdr3_summary;
KDR3_PUBLIC kdr3_status kdr3_result_summary(const kdr3_result* result, kdr3_summary* summary);

/* Fixed effects, in the order: level-1 coefficients in the order of their columns in the data, the intercept first; the
 * level-2 terms of each; the level-3 terms of each of these. estimates [g], covariance [g * g] row by row, df [g]
 * (degrees of freedom of the t tests). robust [g * g] is the sandwich of the level-3 units, NaN where it can't be
 * computed. With design weights the covariance is a sandwich itself. */
KDR3_PUBLIC kdr3_status kdr3_result_fixed(const kdr3_result* result, double* estimates, double* covariance,
                                          double* robust, double* df);
/* The name of fixed effect i: its level-1, level-2 and level-3 variables, "(intercept)" for an intercept, joined by ":"
 * without the intercepts behind others. Valid as long as the result. */
KDR3_PUBLIC const char* kdr3_result_name(const kdr3_result* result, size_t i);

/* tau(pi) [p * p] and tau(beta) [b * b], and the standard errors of their elements in matrices of the same shape, NaN
 * where there is none. sigma2error: that of sigma^2, NaN likewise. */
KDR3_PUBLIC kdr3_status kdr3_result_variances(const kdr3_result* result, double* taupi, double* taubeta,
                                              double* taupierrors, double* taubetaerrors, double* sigma2error);

/* Posterior means (empirical Bayes residuals) of the random effects: level2 [units2 * p], level3 [units3 * b], units in
 * the order of the data; with design weights those of level 2 without the units that missing values left no record of,
 * all of them as they enter the linear predictor. Of a non-linear model they stand on the scale of the link and are
 * those of the phase that the result is of: of quadrature integrals, of one point and of Laplace-6 the modes with the
 * curvature there as their precision; with AGQNODESFIXED, as without an engine or where it has no results, those of
 * quasi-likelihood. */
KDR3_PUBLIC kdr3_status kdr3_result_effects(const kdr3_result* result, double* level2, double* level3);
/* Their posterior covariances: level2 [units2 * p * p], level3 [units3 * b * b]. */
KDR3_PUBLIC kdr3_status kdr3_result_effectvariances(const kdr3_result* result, double* level2, double* level3);
/* The posterior covariances of the effects of each level-2 unit with those of its level-3 unit: both [units2 * p * b].
 * Engines alone have them: NaN otherwise. */
KDR3_PUBLIC kdr3_status kdr3_result_effectcovariances(const kdr3_result* result, double* both);
/* Design weights as the random effects of the result know them, all 1 without any: level1 [records], how often a record
 * counts in its level-2 unit, in the order of the units; level2 [units2], how often what a unit tells counts in its
 * level-3 unit; level3 [units3]. */
KDR3_PUBLIC kdr3_status kdr3_result_weights(const kdr3_result* result, double* level1, double* level2, double* level3);
/* The covariance of all parameters, joint [(q + g) * (q + g)]: the lower triangles of tau(pi) and tau(beta) by rows, q
 * elements, then the fixed effects. Engines alone have it: NaN otherwise. */
KDR3_PUBLIC kdr3_status kdr3_result_joint(const kdr3_result* result, double* joint);

/* Set `size` to sizeof(kdr3_test) before the call. */
typedef struct {
  size_t size;
  int df;              /* contrasts */
  double chisquare, p; /* Wald statistic and its tail; NaN where contrasts depend on each other, or there is none */
  double df2;          /* where p is that of F = chisquare / df: its denominator; NaN: p is that of the chi-square */
} kdr3_test;
/* The test of hypothesis i, from 0 in the order of the calls; `robust`: by the sandwich of the level-3 units. */
KDR3_PUBLIC kdr3_status kdr3_result_test(const kdr3_result* result, size_t i, int robust, kdr3_test* test);

/* The bootstrap of the fit: how many replicates were asked for, and how many of them were tried before it was stopped;
 * rows [asked * width], a row for each: fixed effects [g], the lower triangles of tau(pi) and tau(beta) by rows,
 * sigma^2; NaN in one without a fit that has converged. width = g + p (p + 1) / 2 + b (b + 1) / 2 + 1. Any of them may
 * be null. */
KDR3_PUBLIC kdr3_status kdr3_result_replicates(const kdr3_result* result, size_t* asked, size_t* tried, double* rows);

typedef enum { KDR3_T, KDR3_CHISQUARE, KDR3_F } kdr3_statistic;
/* The p-value of a statistic: two-sided of Student's t with df1 degrees of freedom (infinity: of a standard normal),
 * the upper tail of a chi-square with df1, or of F with df1 and df2. */
KDR3_PUBLIC double kdr3_pvalue(kdr3_statistic kind, double statistic, double df1, double df2);

typedef enum { KDR3_JSON, KDR3_CSV } kdr3_form;
/* The results document of the fit, with all phases, in UTF-8: what the program writes for RESULTS:, as JSON or as a
 * table. Valid as long as the result. */
KDR3_PUBLIC const char* kdr3_result_document(const kdr3_result* result, kdr3_form form);

/* The robust standard errors of the elements of tau(pi) [p * p] and tau(beta) [b * b], by the sandwich of the level-3
 * units' scores (of two levels, of the level-2 units'). Laplace-6 and quadrature have them; NaN of other models, and
 * where they can't be computed. With design weights the errors of kdr3_result_variances are the same. */
KDR3_PUBLIC kdr3_status kdr3_result_robustvariances(const kdr3_result* result, double* taupierrors,
                                                    double* taubetaerrors);

/* Warnings, from 0; null behind the last. Valid as long as the result. */
KDR3_PUBLIC const char* kdr3_result_warning(const kdr3_result* result, size_t i);

KDR3_PUBLIC void kdr3_result_free(kdr3_result* result);

/* ---- Predictions ----------------------------------------------------------------------------------------------- */

/* A fitted model as what the functions above hand out, whether or not its handles are still there. Fixed effects may
 * stand in any order that their covariances and the rows share; of an outcome with C categories the thresholds of an
 * ordinal one come behind the others, and all of a multinomial one stand there for each category in turn, random
 * effects as well. Set `size` to sizeof(kdr3_fitted). */
typedef struct {
  size_t size;
  kdr3_family family;
  int categories;                        /* C, of an outcome with categories */
  size_t fixedeffects, random2, random3; /* g, p, b */
  const double* fixed;                   /* [g] */
  const double *taupi, *taubeta;         /* [p * p], [b * b] */
  double sigma2;                         /* of level 1; of an outcome that is not normal over-dispersion, 1 without */
  const double *covariance, *joint;      /* of the fixed effects; of all parameters, null: variances count as known */
  size_t units2, units3;
  const double *level2, *level3; /* posterior means of the units; null: those of new ones alone are asked for */
  /* Their covariances, as kdr3_result_effectvariances and _effectcovariances have them; null: by the curvature at the
   * modes, which is exact of normal outcomes. */
  const double *variances2, *variances3, *covariances;
  /* Design weights of the fit's own records and of its units, as kdr3_result_weights has them; null: none. */
  const double *weights1, *weights2, *weights3;
} kdr3_fitted;

/* Rows of the model's matrices. `fixed` [records * columns] has the g effects; of a multinomial outcome those of one
 * category, g / (C - 1); of an ordinal one those without the C - 2 thresholds; `random2` and `random3` likewise.
 * offset: what is added to the linear predictor, the logarithm of an exposure in it; null is 0. unit2 and unit3
 * [records]: the numbers of the units, below 0 of a new one; null: all are new. Of the fit's own records also the
 * outcome, which of categories is their place from 0, and `counts`, the trials of a binomial one (null: 1). Set `size`
 * to sizeof(kdr3_rows). */
typedef struct {
  size_t size;
  size_t records;
  const double *fixed, *random2, *random3, *offset;
  const ptrdiff_t *unit2, *unit3;
  const double *outcome, *counts;
} kdr3_rows;

typedef enum {
  KDR3_LINEAR,     /* linear predictors with random effects of 0; of C categories C - 1: the logits of each against the
                    * last one, or the cumulative logits */
  KDR3_RESPONSE,   /* means with random effects of 0; of C categories the C probabilities */
  KDR3_AVERAGE,    /* their means over the random effects of both levels */
  KDR3_UNITLINEAR, /* as KDR3_LINEAR with the random effects of the units; of a new one they are 0, and what they may */
  KDR3_UNITRESPONSE /* be is in the error */
} kdr3_predicted;

/* Values [records * k] row by row, k being 1, C - 1 or C, and their standard errors by the delta method, either of them
 * null; NaN in a row with a value that is not finite. `own` are the fit's own records, which errors of known units
 * need: posterior means hang on the estimates, as the modes do. They are those of the program's -predict. Errors: a
 * model that has none of what is asked for, a unit that is not there. */
KDR3_PUBLIC kdr3_status kdr3_predict(const kdr3_fitted* fitted, const kdr3_rows* own, const kdr3_rows* rows,
                                     kdr3_predicted what, double* values, double* errors);

#ifdef __cplusplus
}
#endif

#endif
