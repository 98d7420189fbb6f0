#include "platform/http/httpresponse_t.h"

httpresponse_t httpresponse_t::success(int status, const QByteArray& body, const QJsonValue& data)
{
    httpresponse_t response;
    response.error_ = false;
    response.error_string_.clear();
    response.status_ = status;
    response.body_ = body;
    response.data_ = data;
    return response;
}

httpresponse_t httpresponse_t::failure(int status, const QByteArray& body, const QString& reason)
{
    httpresponse_t response;
    response.error_ = true;
    response.error_string_ = reason;
    response.status_ = status;
    response.body_ = body;
    return response;
}
