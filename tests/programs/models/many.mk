# For make -j: a generator makes sources, each is compiled, and an archive and a program are made of them; some
# hundred processes in all, several at a time.
names := $(shell seq 1 16)

all: program
	./program
program: main.o parts.a
	gcc -o $@ $^
parts.a: $(names:%=part%.o)
	ar rcsD $@ $^
main.c: many.mk
	(for n in $(names); do echo "int part$$n(int);"; done; \
	 echo '#include <stdio.h>'; echo 'int main(void) { int x = 1;'; \
	 for n in $(names); do echo "x = part$$n(x);"; done; \
	 echo 'printf("%d", x); return 0; }') >$@
part%.c: many.mk
	(echo '#include <stdlib.h>'; echo '#include <string.h>'; \
	 for n in $$(seq 1 60); do echo "static int f$$n(int x) { int* p = calloc(8, sizeof(int)); p[1] = x * $$n;" \
	 "x = p[1] % 1009 + $*; free(p); return x; }"; done; \
	 echo 'int part$*(int x) {'; for n in $$(seq 1 60); do echo "x = f$$n(x);"; done; echo 'return x; }') >$@
%.o: %.c
	gcc -O1 -c -o $@ $<
.DELETE_ON_ERROR:
.SECONDARY:
