/* Says its process id, does what it is told on standard input, a line each, and answers each line
 * by one: a SIZE      allocates, answers with the address f ADDRESS   frees t COUNT     allocates
 * and frees so often c           runs a child that ends by exit l           makes a thread that
 * goes through the loaded files slow e           ends by _exit, q by exit */

#define _GNU_SOURCE

#include <dlfcn.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static volatile int isLoaderSlow;

struct Visit {
  int (*callback)(struct dl_phdr_info*, size_t, void*);
  void* data;
};

static int visitSlowly(struct dl_phdr_info* info, size_t size, void* data) {
  const struct Visit* const visit = data;
  if (isLoaderSlow && gettid() != getpid()) usleep(100000);
  return visit->callback(info, size, visit->data);
}

int dl_iterate_phdr(int (*callback)(struct dl_phdr_info*, size_t, void*), void* data) {
  int (*const real)(int (*)(struct dl_phdr_info*, size_t, void*), void*) = (int (*)(
      int (*)(struct dl_phdr_info*, size_t, void*), void*))dlsym(RTLD_NEXT, "dl_iterate_phdr");
  struct Visit visit = {callback, data};
  return real(visitSlowly, &visit);
}

int main(void) {
  static char input[BUFSIZ], output[BUFSIZ];
  setvbuf(stdin, input, _IOFBF, sizeof input);
  setvbuf(stdout, output, _IOLBF, sizeof output);
  printf("%d\n", getpid());
  char line[100];
  while (fgets(line, sizeof line, stdin) != NULL) {
    switch (line[0]) {
      case 'a':
        printf("%p\n", malloc(strtoul(line + 2, NULL, 0)));
        break;
      case 'f':
        free((void*)strtoul(line + 2, NULL, 0));
        puts("freed");
        break;
      case 't':
        for (unsigned long i = strtoul(line + 2, NULL, 0); i > 0; --i) free(malloc(32));
        puts("done");
        break;
      case 'c':
        if (fork() == 0) exit(0);
        wait(NULL);
        puts("gone");
        break;
      case 'l':
        isLoaderSlow = 1;
        puts("slow");
        break;
      case 'e':
        _exit(7);
      default:
        return 3;
    }
  }
  return 0;
}
