/* What the back-end asks, through the debugger, to tell this wrapper from
 * others. In a file of its own with nothing included: gdb reads the debug
 * information of the file to call it, and the wrappers' own (MPI's types
 * with them) is left out, so that it is a few hundred bytes. */
__attribute__((visibility("default"))) int quorvex_zorMpiWrapperVersion(void)
{
    return 600;
}
