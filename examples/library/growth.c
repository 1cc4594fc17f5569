/* Growth from arrays: scores over four years of 240 pupils in 30 schools; level and growth vary over both.
 *   cc growth.c $(pkg-config --cflags --libs kdr3) -o growth && ./growth */
#include <kdr3/kdr3.h>
#include <stdio.h>
enum { schools = 30, pupils = 8, years = 4, rows = schools * pupils * years };
static double year[rows], score[rows], pupil[rows], school[rows];
static double noise(void) { /* uniform between -1 and 1, the same on every machine */
  static unsigned state = 1;
  return ((state = state * 1664525u + 1013904223u) >> 8) / 8388608.0 - 1.0;
}

int main(void) {
  double level3 = 0, growth3 = 0, level2 = 0, growth2 = 0, gamma[2], taupi[4], taubeta[4];
  for (int i = 0; i < rows; ++i) {
    if (i % (pupils * years) == 0) level3 = 6 * noise(), growth3 = noise();
    if (i % years == 0) level2 = 8 * noise(), growth2 = 2 * noise();
    school[i] = i / (pupils * years), pupil[i] = i / years, year[i] = i % years;
    score[i] = 50 + level3 + level2 + (3 + growth3 + growth2) * year[i] + 4 * noise();
  }
  kdr3_column columns[] = {{"score", 1, KDR3_DOUBLE, score, 0, NULL}, {"year", 1, KDR3_DOUBLE, year, 0, NULL}};
  kdr3_column units2 = {"pupil", 2, KDR3_DOUBLE, pupil, 0, NULL}, units3 = {"school", 3, KDR3_DOUBLE, school, 0, NULL};
  kdr3_data* data = NULL;
  kdr3_model* model = NULL;
  kdr3_result* result = NULL;
  if (kdr3_data_make(rows, 2, columns, &units2, &units3, &data) == KDR3_ERROR ||
      kdr3_model_make(data, "score", KDR3_NORMAL, NULL, 0, &model) == KDR3_ERROR)
    return fprintf(stderr, "%s\n", kdr3_message());
  for (int c = 0; c < 2; ++c) { /* the intercept, then year: random at levels 2 and 3 */
    kdr3_model_level1(model, c == 0 ? NULL : "year", KDR3_RAW, 1, NULL);
    kdr3_model_level2(model, c, NULL, KDR3_RAW, 1, NULL);
    kdr3_model_level3(model, c, NULL, KDR3_RAW);
  }
  if (kdr3_fit(model, NULL, &result) == KDR3_ERROR) return fprintf(stderr, "%s\n", kdr3_message());
  kdr3_result_fixed(result, gamma, NULL, NULL, NULL);
  kdr3_result_variances(result, taupi, taubeta, NULL, NULL, NULL);
  for (int c = 0; c < 2; ++c)
    printf("%-12s %.4f  variance between pupils %.4f, between schools %.4f\n", kdr3_result_name(result, c), gamma[c],
           taupi[3 * c], taubeta[3 * c]);
  kdr3_result_free(result), kdr3_model_free(model), kdr3_data_free(data);
}
