// A Mach-O library with 10,000 imports, import_0000 to import_9999, each called once.

// Ten, a hundred and a thousand times. clang-format never comes to an end with these.
// clang-format off
#define TEN(each, n) \
  each(n##0) each(n##1) each(n##2) each(n##3) each(n##4) \
  each(n##5) each(n##6) each(n##7) each(n##8) each(n##9)
#define HUNDRED(each, n) \
  TEN(each, n##0) TEN(each, n##1) TEN(each, n##2) TEN(each, n##3) TEN(each, n##4) \
  TEN(each, n##5) TEN(each, n##6) TEN(each, n##7) TEN(each, n##8) TEN(each, n##9)
#define THOUSAND(each, n) \
  HUNDRED(each, n##0) HUNDRED(each, n##1) HUNDRED(each, n##2) HUNDRED(each, n##3) HUNDRED(each, n##4) \
  HUNDRED(each, n##5) HUNDRED(each, n##6) HUNDRED(each, n##7) HUNDRED(each, n##8) HUNDRED(each, n##9)
#define EVERY(each) \
  THOUSAND(each, 0) THOUSAND(each, 1) THOUSAND(each, 2) THOUSAND(each, 3) THOUSAND(each, 4) \
  THOUSAND(each, 5) THOUSAND(each, 6) THOUSAND(each, 7) THOUSAND(each, 8) THOUSAND(each, 9)
// clang-format on

#define DECLARE(n) extern int import_##n(void);
#define CALL(n) sum += import_##n();

EVERY(DECLARE)

int callEveryImport(void) {
  int sum = 0;
  EVERY(CALL)
  return sum;
}
