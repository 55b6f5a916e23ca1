// A setting that follows a class-wide default until it is given its own
// value.
//
// DefaultableValue<T, Owner, N> keeps one object's own value and a flag
// telling whether to use it. The default is shared by every object of the
// same instantiation; Owner and N only tell instantiations apart, so that
// each setting of each class has its own default (for example
// DefaultableValue<long, RollingFile, 1> is the maximum file size of every
// rolling file).
//
// Threads: the class-wide default is a plain static; set it on the thread
// that owns the objects (the daemon's main thread).
#ifndef KESTRIN_ZOR_DEFAULTABLE_VALUE_H_
#define KESTRIN_ZOR_DEFAULTABLE_VALUE_H_

namespace Zor {

template <typename T, typename Owner, int N>
class DefaultableValue {
 public:
  // Follows the default; the own value is zero (false) until Set.
  DefaultableValue() : value_(), useDefault_(true) {}
  virtual ~DefaultableValue() = default;

  // Stores `value` as the own value and stops following the default.
  void Set(const T& value) {
    value_ = value;
    useDefault_ = false;
  }
  void operator()(const T& value) { Set(value); }

  // The own value, or the class-wide default while following it.
  T Get() const { return useDefault_ ? defaultValue() : value_; }
  T operator()() const { return Get(); }

  // True makes the object follow the default again (the own value is kept
  // for a later UseDefault(false)).
  void UseDefault(bool useDefault) { useDefault_ = useDefault; }
  bool IsUsingDefault() const { return useDefault_; }

  static void SetDefault(const T& value) {
    defaultValue() = value;
    beenSet() = true;
  }
  static T GetDefault() { return defaultValue(); }

  // Whether SetDefault was ever called for this instantiation.
  static bool HasSetDefaultBeenCalled() { return beenSet(); }

 private:
  static T& defaultValue() {
    static T value{};
    return value;
  }
  static bool& beenSet() {
    static bool set = false;
    return set;
  }

  T value_;
  bool useDefault_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_DEFAULTABLE_VALUE_H_
