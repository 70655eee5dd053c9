struct Thing { int n; };
struct Holder {
  const Thing& thing() const { return thing_; }
  Thing& WriteThing() { return thing_; }
  Thing thing_;
};
