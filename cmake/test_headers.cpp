/// Nothing but a place for the headers that the test programs share.
int main() {}
