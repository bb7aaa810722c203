#include <mutex>

#include <fmt/format.h>

#include "simconnect/simconnect.h"

namespace orv::simconnect {

namespace {

class NetworkClient final : public Api {
  public:
    NetworkClient(TransportFactory connect, DWORD protocol)
        : connect_(std::move(connect)), protocol_(protocol), reassembler_(kServerHeaderSize) {
        buffer_.resize(16384);
    }
    ~NetworkClient() override { Close(); }

    HRESULT Open(std::string_view name) override {
        Close();
        const auto identity = protocolIdentity(protocol_);
        if (!identity) {
            error_ = fmt::format("protocol {} is not one this client speaks", protocol_);
            return E_FAIL;
        }
        {
            std::lock_guard lock(mutex_);
            transport_ = connect_(error_);
            if (!transport_) return E_FAIL;
            opened_ = true;
        }
        error_.clear();
        reassembler_ = Reassembler(kServerHeaderSize);
        quitDelivered_ = false;
        OpenPacket p{name,
                     0,
                     0,
                     identity->alias,
                     identity->major,
                     identity->minor,
                     identity->buildMajor,
                     identity->buildMinor};
        return send(p);
    }

    // Closing a handle whose connection the simulator already ended is fine, as with SimConnect.
    HRESULT Close() override {
        std::lock_guard lock(mutex_);
        if (!transport_) return opened_ ? S_OK : E_FAIL;
        transport_->close();
        transport_.reset();
        return S_OK;
    }

    HRESULT CallDispatch(DispatchProc proc, void* context) override {
        for (;;) {
            long n;
            {
                std::lock_guard lock(mutex_);
                if (!transport_) return E_FAIL;
                n = transport_->receive(buffer_.data(), buffer_.size(), 0);
            }
            if (n < 0) return lost(proc, context, "the simulator closed the connection");
            if (n == 0) break;
            reassembler_.feed(Bytes(buffer_.data(), static_cast<std::size_t>(n)));
            while (const auto packet = reassembler_.next()) {
                auto decoded = decodeServer(*packet);
                if (auto* e = std::get_if<std::string>(&decoded)) return lost(proc, context, *e);
                const auto& message = std::get<Received>(decoded);
                if (message.id == SIMCONNECT_RECV_ID_QUIT) quitDelivered_ = true;
                proc(message, context);
            }
            if (!reassembler_.error().empty()) return lost(proc, context, reassembler_.error());
        }
        return S_OK;
    }

    HRESULT AddToDataDefinition(DWORD defineId, std::string_view datumName, std::string_view unitsName,
                                DWORD datumType, float epsilon, DWORD datumId) override {
        return send(AddToDataDefinitionPacket{defineId, datumName, unitsName, datumType, epsilon, datumId});
    }
    HRESULT RequestDataOnSimObject(DWORD requestId, DWORD defineId, DWORD objectId, DWORD period, DWORD flags,
                                   DWORD origin, DWORD interval, DWORD limit) override {
        return send(RequestDataOnSimObjectPacket{requestId, defineId, objectId, period, flags, origin,
                                                 interval, limit});
    }
    HRESULT RequestDataOnSimObjectType(DWORD requestId, DWORD defineId, DWORD radiusMeters,
                                       DWORD type) override {
        return send(RequestDataOnSimObjectTypePacket{requestId, defineId, radiusMeters, type});
    }
    HRESULT SetDataOnSimObject(DWORD defineId, DWORD objectId, DWORD flags, DWORD arrayCount, DWORD unitSize,
                               const void* data) override {
        // An array count of 0 means one unit, as in the published header.
        const std::size_t n = static_cast<std::size_t>(unitSize) * (arrayCount == 0 ? 1 : arrayCount);
        return send(SetDataOnSimObjectPacket{defineId, objectId, flags, arrayCount, unitSize,
                                             Bytes(static_cast<const std::uint8_t*>(data), n)});
    }
    HRESULT SubscribeToSystemEvent(DWORD eventId, std::string_view name) override {
        return send(SubscribeToSystemEventPacket{eventId, name});
    }
    HRESULT MapClientEventToSimEvent(DWORD eventId, std::string_view name) override {
        return send(MapClientEventToSimEventPacket{eventId, name});
    }
    HRESULT TransmitClientEvent(DWORD objectId, DWORD eventId, DWORD data, DWORD groupId,
                                DWORD flags) override {
        return send(TransmitClientEventPacket{objectId, eventId, data, groupId, flags});
    }
    HRESULT AddClientEventToNotificationGroup(DWORD groupId, DWORD eventId, bool maskable) override {
        return send(AddClientEventToNotificationGroupPacket{groupId, eventId, maskable ? 1u : 0u});
    }
    HRESULT SetNotificationGroupPriority(DWORD groupId, DWORD priority) override {
        return send(SetNotificationGroupPriorityPacket{groupId, priority});
    }
    HRESULT AICreateNonATCAircraft(std::string_view title, std::string_view tail,
                                   const SIMCONNECT_DATA_INITPOSITION& init, DWORD requestId) override {
        return send(AICreateNonATCAircraftPacket{title, tail, init, requestId});
    }
    HRESULT AIReleaseControl(DWORD objectId, DWORD requestId) override {
        return send(AIReleaseControlPacket{objectId, requestId});
    }
    HRESULT AIRemoveObject(DWORD objectId, DWORD requestId) override {
        return send(AIRemoveObjectPacket{objectId, requestId});
    }
    HRESULT AISetAircraftFlightPlan(DWORD objectId, std::string_view path, DWORD requestId) override {
        if (path.size() >= 260) return E_FAIL; // would be cut to another file's name
        return send(AISetAircraftFlightPlanPacket{objectId, path, requestId});
    }
    HRESULT GetLastSentPacketID(DWORD* sendId) override {
        if (!sendId || sendCount_ == 0) return E_FAIL;
        *sendId = sendCount_;
        return S_OK;
    }
    std::string lastError() const override { return error_; }

  private:
    HRESULT send(const ClientPacket& p) {
        std::lock_guard lock(mutex_);
        if (!transport_) return E_FAIL;
        const auto bytes = encodeClient(p, protocol_, ++sendCount_);
        if (!transport_->send(bytes)) {
            error_ = "sending to the simulator failed";
            return E_FAIL;
        }
        return S_OK;
    }

    // The connection is gone or its stream can't be trusted: a failure with its reason, which the
    // caller tells apart from the simulator's own QUIT.
    HRESULT lost(DispatchProc, void*, std::string why) {
        error_ = std::move(why);
        Close();
        return E_FAIL;
    }

    // Sends come from several threads (each under the caller's own lock) while one dispatches.
    std::mutex mutex_;
    TransportFactory connect_;
    DWORD protocol_;
    std::unique_ptr<Transport> transport_;
    Reassembler reassembler_;
    std::vector<std::uint8_t> buffer_;
    DWORD sendCount_ = 0;
    bool quitDelivered_ = false;
    bool opened_ = false;
    std::string error_;
};

} // namespace

std::unique_ptr<Api> makeNetworkClient(TransportFactory connect, DWORD protocol) {
    return std::make_unique<NetworkClient>(std::move(connect), protocol);
}

} // namespace orv::simconnect
