// A library that is built with frames of different sizes, and is the same otherwise.

void CallFromPlugin(void (*callback)(void)) {
  volatile char frame[FRAME_SIZE];
  frame[0] = 1;
  callback();
  (void)frame[0];  // not a tail call
}
