// spoolcap-transfer: carries stored files between this node and the object store.
int main() {
  return 2;
}
