# The object path of the calculator: IntS additions against plain Int
# additions in the same script loop (no peer library).
kwz_bench(bench_calc_objs)
