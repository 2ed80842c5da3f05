// The module bench_dynload looks symbols up in: 32 small functions, so that
// both the loader and the cache search a table of several names.
#define BENCH_FN(n) extern "C" int bench_fn_##n() { return n; }
BENCH_FN(0) BENCH_FN(1) BENCH_FN(2) BENCH_FN(3) BENCH_FN(4) BENCH_FN(5) BENCH_FN(6) BENCH_FN(7)
BENCH_FN(8) BENCH_FN(9) BENCH_FN(10) BENCH_FN(11) BENCH_FN(12) BENCH_FN(13) BENCH_FN(14)
BENCH_FN(15) BENCH_FN(16) BENCH_FN(17) BENCH_FN(18) BENCH_FN(19) BENCH_FN(20) BENCH_FN(21)
BENCH_FN(22) BENCH_FN(23) BENCH_FN(24) BENCH_FN(25) BENCH_FN(26) BENCH_FN(27) BENCH_FN(28)
BENCH_FN(29) BENCH_FN(30) BENCH_FN(31)
