// What the module's own C++ runtime would leave in the process when the module is unloaded.
namespace __gnu_cxx {
void __freeres();
}

namespace {

// At its start the runtime takes 72 KiB for exceptions that are thrown when there is no memory, and gives it back to
// who asks for that alone. This runs behind everything else that runs at the end, by its number.
[[gnu::destructor(101)]] void GiveMemoryBack() {
  __gnu_cxx::__freeres();
}

}  // namespace
