int main() {} // linked statically, so that nothing can be preloaded into it
