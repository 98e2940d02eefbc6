/// A program that does nothing: what it costs is what starting any program of the tool's libraries costs.

int main() {}
