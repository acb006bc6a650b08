#include "api/data_location.h"

#include "api/call_frame.h"
#include "api/relay.h"
#include "api/utils.h"
#include "relocation/backupmove.h"
#include "runtime/exception.h"

namespace zopobsolete {

// The move itself; its events come out of the public object.
class DataLocationProxy : public backupmove {
public:
    explicit DataLocationProxy(DataLocation& owner) {
        hooks_.push_back(
            progressEvent_Total.hook([&owner](std::int32_t count, std::int64_t cost, bool& cancel) {
                relay("zopobsolete::DataLocationProxy::progressEvent_TotalHandler", __LINE__,
                      [&] { owner.ProgressEvent_Cost.raise(count, cost, cancel); });
            }));
        hooks_.push_back(progressEvent_Name.hook(
            [&owner](const std::wstring& name, bool isFile, std::int64_t cost, bool& cancel) {
                relay("zopobsolete::DataLocationProxy::progressEvent_NameHandler", __LINE__,
                      [&] { owner.ProgressEvent_Name.raise(name, isFile, cost, cancel); });
            }));
        hooks_.push_back(errorEvent.hook([&owner](const std::wstring& message, bool& ignore) {
            relay("zopobsolete::DataLocationProxy::errorEvent_Handler", __LINE__, [&] {
                BackupCopyErrorEvent error(message, ignore);
                owner.ErrorEvent.raise(error);
                ignore = error.ignore;
            });
        }));
    }

private:
    std::vector<Hook> hooks_;
};

DataLocation::DataLocation()
    : proxy_(callFrame({"zopobsolete::DataLocation::DataLocation", __LINE__, __LINE__ + 1},
                       [&] { return std::make_shared<DataLocationProxy>(*this); })) {}

DataLocation::DataLocation(StreamType type) : DataLocation() {
    set_CopyStreams(type);
}

DataLocation::DataLocation(StreamType type, bool copyOwner) : DataLocation(type) {
    callFrame({"zopobsolete::DataLocation::DataLocation", __LINE__, __LINE__ + 1},
              [&] { native()->set_copyOwner(copyOwner); });
}

DataLocation::~DataLocation() = default;

StreamType DataLocation::get_CopyStreams() {
    return callFrame({"zopobsolete::DataLocation::CopyStreams::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_streams(); });
}

void DataLocation::set_CopyStreams(StreamType type) {
    callFrame({"zopobsolete::DataLocation::CopyStreams::set", __LINE__, __LINE__ + 1}, [&] {
        StreamType mask = StreamType::None; // unknown flags are left out
        for (const StreamType flag :
             {StreamType::Data, StreamType::EAData, StreamType::SecurityData,
              StreamType::AlternateData, StreamType::PropertyData, StreamType::ObjectId,
              StreamType::ReparseData}) {
            if (has(type, flag)) {
                mask = mask | flag;
            }
        }
        native()->set_streams(mask);
    });
}

bool DataLocation::Change(const std::wstring& source, const std::wstring& dest) {
    return callFrame({"zopobsolete::DataLocation::Change", __LINE__, __LINE__ + 1}, [&] {
        const auto mover = native();
        try {
            moved_ = mover->move(Utils::toUnmanagedString(source), Utils::toUnmanagedString(dest),
                                 false);
        } catch (const CanceledException&) {
            return false;
        }
        return true;
    });
}

void DataLocation::Commit() {
    callFrame({"zopobsolete::DataLocation::Commit", 337, 339}, [&] { native()->commit(); });
}

void DataLocation::Rollback() {
    callFrame({"zopobsolete::DataLocation::Rollback", __LINE__, __LINE__ + 1},
              [&] { native()->rollback(); });
}

std::vector<std::wstring> DataLocation::get_Failed() {
    return callFrame({"zopobsolete::DataLocation::Failed::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_failed(); });
}

CopyReport DataLocation::get_Report() {
    return callFrame({"zopobsolete::DataLocation::Report::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_report(); });
}

std::vector<std::wstring> DataLocation::get_LeftBehind() {
    return callFrame({"zopobsolete::DataLocation::LeftBehind::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_leftBehind(); });
}

std::vector<std::wstring> DataLocation::get_PendingRestart() {
    return callFrame({"zopobsolete::DataLocation::PendingRestart::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_pendingRestart(); });
}

void DataLocation::Dispose() {
    proxy_.reset();
}

std::shared_ptr<DataLocationProxy> DataLocation::native() {
    if (!proxy_) {
        throw vexception(L"The data location has been disposed of",
                         {L"", "DataLocation::native", __LINE__});
    }
    return proxy_;
}

} // namespace zopobsolete
