// The tables that the host calls. Each entry leads to a member function, and turns whatever is thrown below
// it into a result code: no exception reaches the host.
#include "component/lumbra.h"
#include "platform/result.h"

namespace lumbra {
namespace {

// The C function behind a member function, for the operation table ...
template <auto pMember>
struct Operation;

template <class... Arguments, ResultCode (Lumbra::*pMember)(Arguments...)>
struct Operation<pMember> {
  static ResultCode Call(HostObject* pSelf, Arguments... Values) noexcept {
    try {
      return (Lumbra::Of(pSelf).*pMember)(Values...);
    } catch (...) {
      return ResultFromCurrentException();
    }
  }
};

// ... and for the lifecycle table.
template <auto pMember>
struct Lifecycle;

template <class... Arguments, ResultCode (Lumbra::*pMember)(Arguments...)>
struct Lifecycle<pMember> {
  static ResultCode Call(LumbraInstance* pInstance, Arguments... Values) noexcept {
    try {
      return (Lumbra::Of(pInstance).*pMember)(Values...);
    } catch (...) {
      return ResultFromCurrentException();
    }
  }
};

ResultCode NothingToDo(LumbraInstance*) noexcept {
  return errOK;
}

}  // namespace

const LumbraOperations Lumbra::kOperations = {
    .AddEvent = Operation<&Lumbra::AddEvent>::Call,
    .GetEvents = Operation<&Lumbra::GetEvents>::Call,
    .UpdateEvent = Operation<&Lumbra::UpdateEvent>::Call,
    .FindObjectSimple = Operation<&Lumbra::FindObjectSimple>::Call,
    .GetObjectName = Operation<&Lumbra::GetObjectName>::Call,
    .GetObjectData = Operation<&Lumbra::GetObjectData>::Call,
    .SetObjectData = Operation<&Lumbra::SetObjectData>::Call,
    .GetObjectDataInto = Operation<&Lumbra::GetObjectDataInto>::Call,
    .SetObjectDataFrom = Operation<&Lumbra::SetObjectDataFrom>::Call,
    .GetDBInfo = Operation<&Lumbra::GetDBInfo>::Call,
    .SetDBParams = Operation<&Lumbra::SetDBParams>::Call,
    .InitDB = Operation<&Lumbra::InitDB>::Call,
    .ClearDB = Operation<&Lumbra::ClearDB>::Call,
    .FindObject = Operation<&Lumbra::FindObject>::Call,
    .InitDBByName = Operation<&Lumbra::InitDBByName>::Call,
    .EnumFirstObject = Operation<&Lumbra::EnumFirstObject>::Call,
    .EnumNextObject = Operation<&Lumbra::EnumNextObject>::Call,
    .RemoveAllObjectData = Operation<&Lumbra::RemoveAllObjectData>::Call,
    .Compact = Operation<&Lumbra::Compact>::Call,
};

const LumbraLifecycle Lumbra::kLifecycle = {
    .Slot0 = NothingToDo,
    .ObjectInitDone = Lifecycle<&Lumbra::ObjectInitDone>::Call,
    .ObjectShutdown = Lifecycle<&Lumbra::ObjectShutdown>::Call,
    .Slot3 = NothingToDo,
    .ObjectFree = [](LumbraInstance* pInstance) -> ResultCode {
      DestroyAndFree(&Of(pInstance));
      return errOK;
    },
    .Slot5 = NothingToDo,
    .MessageReceive = Lifecycle<&Lumbra::MessageReceive>::Call,
    .PropertyAccess = Lifecycle<&Lumbra::PropertyAccess>::Call,
    .Destructor = [](LumbraInstance* pInstance,
                     std::uint32_t nFree) { nFree != 0 ? DestroyAndFree(&Of(pInstance)) : Destroy(&Of(pInstance)); },
};

}  // namespace lumbra
