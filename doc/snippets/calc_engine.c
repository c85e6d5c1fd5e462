/* Calculator engine: a host function, a script function that calls it,
   a formula, and a call from C through the execution stack. */
#include <VomKwz.h>
#include <stdio.h>

/* twice(x): the arguments are slots 0.. of the call's frame; the result
   goes into slot 0.  Returns 0 or a calculator code (-44: wrong type). */
static int32_t twice(KWCalcStack* stack) {
    CVar* x = KWCalcStackArg(stack, 0);
    if (x->type != 1) return -44;
    CVarSetInt(x, x->v.i * 2);
    return 0;
}

int main(void) {
    KWCalcDef* calc = NULL;
    KWCalcStack* stack = NULL;
    CVar result;
    CVarInit(&result, 1);
    int status = 1;
    if (KWCalcCreate(&calc, NULL, NULL) != 0) return 1;
    if (KWCalcFunAdd(calc, "twice", 1, twice, NULL, NULL) != 0 ||
        KWCalcFunAddI(calc, "quad(n){Result = twice(twice(n));}", NULL, 0, 0) != 0 ||
        KWCalcSetLimits(calc, 100000, 1 << 20, 0) != 0) /* instructions, bytes, call depth */
        goto done;
    if (KWCalcFormula("quad(3) + 0.5", &result, calc, 0) != 0) goto done;
    printf("quad(3) + 0.5 = %g\n", result.v.d);
    if (KWCalcStackCreate(calc, &stack, 32) != 0) goto done;
    CVar* arg = KWCalcStackPush(stack);
    if (!arg) goto done;
    CVarSetInt(arg, 10);
    if (KWCalcFun2(stack, "quad") != 0 || KWCalcStackPop(stack, &result) != 0) goto done;
    printf("quad(10) = %lld\n", (long long)result.v.i);
    status = 0;
done:
    CVarSetEmpty(&result);
    KWCalcStackFree(stack);
    KWCalcDestroy(calc); /* frees the compiled functions too */
    return status;
}
