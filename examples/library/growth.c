/* Growth from arrays: scores over four years of 240 pupils in 30 schools; level and growth vary over both.
 *   cc growth.c $(pkg-config --cflags --libs kdr3) -o growth && ./growth */
#include <kdr3/kdr3.h>
#include <stdio.h>

enum { schools = 30, pupils = 8, years = 4, rows = schools * pupils * years };

static double noise(void) { /* uniform between -1 and 1, the same on every machine */
  static unsigned state = 1;
  state = state * 1664525u + 1013904223u;
  return (double)(state >> 8) / 8388608.0 - 1.0;
}

int main(void) {
  static double year[rows], score[rows], pupil[rows], school[rows];
  for (int k = 0, i = 0; k < schools; ++k) {
    const double level3 = 6 * noise(), growth3 = noise();
    for (int j = 0; j < pupils; ++j) {
      const double level2 = 8 * noise(), growth2 = 2 * noise();
      for (int t = 0; t < years; ++t, ++i) {
        school[i] = k, pupil[i] = j, year[i] = t;
        score[i] = 50 + level3 + level2 + (3 + growth3 + growth2) * t + 4 * noise();
      }
    }
  }
  kdr3_column columns[] = {{"score", 1, KDR3_DOUBLE, score, 0, NULL}, {"year", 1, KDR3_DOUBLE, year, 0, NULL}};
  kdr3_column level2 = {"pupil", 2, KDR3_DOUBLE, pupil, 0, NULL}, level3 = {"school", 3, KDR3_DOUBLE, school, 0, NULL};
  kdr3_data* data = NULL;
  kdr3_model* model = NULL;
  kdr3_result* result = NULL;
  int failed = kdr3_data_make(rows, 2, columns, &level2, &level3, &data) == KDR3_ERROR ||
               kdr3_model_make(data, "score", KDR3_NORMAL, NULL, 0, &model) == KDR3_ERROR;
  for (int c = 0, term; c < 2 && !failed; ++c) { /* the intercept, then year: random at levels 2 and 3 */
    failed = kdr3_model_level1(model, c == 0 ? NULL : "year", KDR3_RAW, 1, NULL) == KDR3_ERROR ||
             kdr3_model_level2(model, c, NULL, KDR3_RAW, 1, &term) == KDR3_ERROR ||
             kdr3_model_level3(model, term, NULL, KDR3_RAW) == KDR3_ERROR;
  }
  failed = failed || kdr3_fit(model, NULL, &result) == KDR3_ERROR;
  if (failed) fprintf(stderr, "%s\n", kdr3_message());
  double gamma[2], covariance[4], taupi[4], taubeta[4];
  if (!failed) {
    kdr3_result_fixed(result, gamma, covariance, NULL, NULL);
    kdr3_result_variances(result, taupi, taubeta, NULL, NULL, NULL);
    for (int c = 0; c < 2; ++c)
      printf("%-12s %8.4f  variance %.5f, between pupils %.4f, between schools %.4f\n", kdr3_result_name(result, c),
             gamma[c], covariance[3 * c], taupi[3 * c], taubeta[3 * c]);
  }
  kdr3_result_free(result);
  kdr3_model_free(model);
  kdr3_data_free(data);
  return failed;
}
