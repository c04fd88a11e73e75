// QRVTableDBError and _QRVTableDB: web-mode access to the table database through
// the query service vexcore.db.QRVDBQueryer, loaded by name when an adapter is made.
//
// A query payload is a shallow copy of the creator's template plus "category" and
// "query" (a list of dotted keys). Queries can be held back and sent together as
// one "getMultiData" request; the answers come back as a list in the order the
// queries were added. Service replies are unwrapped here; failures are raised as
// QRVTableDBError, which the calibration manager catches and returns.
#include "tables/tables.h"
#include "py/capi.h"

namespace vex::tables {
namespace {

using namespace vex::py;

const Name a_logger{"_QRVTableDB__logger"};
const Name a_db{"_QRVTableDB__db"};
const Name a_template{"_QRVTableDB__template"};
const Name a_unsent{"_QRVTableDB__query_unsend"};
const Name m_returnDB{"_QRVTableDB__returnDB"};
const Name k_queryDB{"queryDB"};
const Name k_code{"code"};
const Name k_data{"data"};
const Name k_message{"message"};
const Name k_category{"category"};
const Name k_query{"query"};
const Name k_frequency{"frequency"};

const char* const kQueryPrefix = "query-";

nb::object QRVTableDBError() {
    static const Name g_QRVTableDBError{"QRVTableDBError"};
    return global(g_QRVTableDBError);
}

// ".".join(parts), with str.join's own TypeError for parts that are not str.
nb::object dotted(nb::handle parts) {
    static const Name k_dot{"."};
    PyObject* joined = PyUnicode_Join(k_dot.ptr(), parts.ptr());
    if (!joined) raise_already_set();
    return nb::steal(joined);
}

// The query keys of `key`: a non-list is one key as it is; a list of lists gives
// one dotted key per inner list up to the first element that is not a list, where
// the whole list becomes one dotted key instead.
nb::list query_keys(nb::handle key) {
    nb::list keys;
    if (!PyList_Check(key.ptr())) {
        keys.append(key);
        return keys;
    }
    for (nb::handle part : nb::borrow<nb::list>(key)) {
        if (!PyList_Check(part.ptr())) {
            keys.append(dotted(key));
            break;
        }
        keys.append(dotted(part));
    }
    return keys;
}

nb::object unsent_key(Py_ssize_t n) { return nb::steal(PyUnicode_FromFormat("%s%zd", kQueryPrefix, n)); }

// --------------------------------------------------------- QRVTableDBError --

void error_init(nb::handle self, nb::handle code, nb::handle msg) {
    nb::handle(PyExc_Exception).attr("__init__")(self, msg);
    static const Name a_ret{"ret"};
    setattr(self, a_ret, RetType()(code, msg));
}

// -------------------------------------------------------------- _QRVTableDB --

void db_init(nb::handle self, nb::handle table_name, nb::handle temp) {
    if (!PyDict_Check(temp.ptr())) raise(PyExc_TypeError, "_QRVTableDB() argument 'temp' must be dict");
    Log log = Log::named("TblDB");
    setattr(self, a_logger, log.logger());
    guard(
        [&]() -> nb::object {
            nb::object package = module().attr("__name__").attr("replace")(".device", "");
            static const Name g_importlib{"importlib"};
            nb::object service =
                global(g_importlib).attr("import_module")("vexcore.db.QRVDBQueryer", nb::arg("package") = package);
            setattr(self, a_db, service.attr("DBQueryer")(table_name));
            setattr(self, a_template, temp);   // by reference: setFreq is seen by the creator
            setattr(self, a_unsent, nb::dict());
            return nb::none();
        },
        [&](nb::handle) -> nb::object {
            log.exception(str("Dynamically import DB lib failed"));
            return nb::none();
        });
}

nb::object db_return(nb::handle self, nb::handle db_info) {
    if (PyUnicode_CheckExact(db_info.ptr()))
        reraise(QRVTableDBError()(RetCode("ERROR_DB_SERVER"), "DB server connection error"));
    nb::object code = getitem(db_info, k_code);
    int is_ok = PyObject_RichCompareBool(code.ptr(), nb::int_(0).ptr(), Py_EQ);
    if (is_ok < 0) raise_already_set();
    if (is_ok) {
        nb::object data = getitem(db_info, k_data);
        if (PyDict_Check(data.ptr()) && dict_size(data.ptr()) == 1) {
            Py_ssize_t pos = 0;
            PyObject *k, *v;
            PyDict_Next(data.ptr(), &pos, &k, &v);
            return ret_data(v);
        }
        return ret_data(data);
    }
    nb::object message = getitem(db_info, k_message);
    reraise(QRVTableDBError()(RetCode("ERROR_DB_FEEDBACK"), nb::arg("msg") = message));
}

nb::object db_get_table_list(nb::handle self, nb::handle name) {
    nb::object command = nb::str("get") + nb::borrow(name) + nb::str("List");
    nb::object reply =
        getattr(self, a_db).attr(k_queryDB)(getattr(self, a_template), nb::arg("queryCmd") = command);
    return getattr(self, m_returnDB)(reply);
}

nb::object db_set_freq(nb::handle self, nb::handle freq) {
    setitem(getattr(self, a_template), k_frequency, freq);
    return ret_ok();
}

nb::object db_set_aakit_name(nb::handle self, nb::handle name) {
    static const Name g_AAKitField{"AAKitField"};
    nb::object key = global(g_AAKitField).attr("AAKIT_NAME").attr("name");
    setitem(getattr(self, a_template), key, name);
    return ret_ok();
}

// A fresh mapping rather than clearing the old one: the service may keep the
// mapping it was handed with a multi-query.
void db_clean_query_cache(nb::handle self) { setattr(self, a_unsent, nb::dict()); }

// Sends the held-back queries plus `payload` as one multi-query and returns the
// answers in the order the queries were added.
nb::object send_multi_query(nb::handle self, nb::handle unsent, Py_ssize_t n, nb::handle payload) {
    setitem(unsent, unsent_key(n), payload);
    nb::object reply = getattr(self, a_db).attr(k_queryDB)(unsent, nb::arg("queryCmd") = "getMultiData");
    nb::object answers = getattr(getattr(self, m_returnDB)(reply), k_RetData);
    Py_ssize_t count = py_len(answers);
    nb::list result = nb::steal<nb::list>(PyList_New(0));
    for (Py_ssize_t i = 0; i < count; ++i) result.append(0);
    for (nb::handle key : answers) {
        nb::object index_text = key.attr("replace")(kQueryPrefix, "");
        nb::object index = nb::steal(PyNumber_Long(index_text.ptr()));
        if (!index.is_valid()) raise_already_set();
        setitem(result, index, getitem(answers, key));
    }
    db_clean_query_cache(self);
    return ret_data(result);
}

nb::object db_query(nb::handle self, nb::handle key, nb::handle category, nb::handle apply_setting) {
    nb::object payload = getattr(self, a_template).attr("copy")();
    setitem(payload, k_category, category);
    setitem(payload, k_query, query_keys(key));

    nb::object unsent = getattr(self, a_unsent);
    Py_ssize_t n = py_len(unsent);
    int apply = PyObject_IsTrue(apply_setting.ptr());
    if (apply < 0) raise_already_set();
    if (!apply) {
        setitem(unsent, unsent_key(n), payload);
        return ret_ok();
    }
    logger_of(self, a_logger).debug(str("[Query]: %s"), payload);
    if (n == 0) return getattr(self, m_returnDB)(getattr(self, a_db).attr(k_queryDB)(payload));
    return send_multi_query(self, unsent, n, payload);
}

}  // namespace

void define_table_db(nb::module_& m) {
    ClassBuilder error(m, "QRVTableDBError", "Failure of a table database access; `ret` holds it as a RetType.",
                       nb::make_tuple(nb::handle(PyExc_Exception)));
    error.def("__init__", &error_init, vex::py::arg("code"), vex::py::arg("msg"));
    error.finish();

    ClassBuilder db(m, "_QRVTableDB",
                    "Responsible to dynamic loading DBQueryer then package query info to payload");
    db.def("__init__", &db_init, vex::py::arg("table_name"), vex::py::arg("temp"));
    db.def_private("returnDB", &db_return, vex::py::arg("db_info"));
    db.def("getTableList", &db_get_table_list, vex::py::arg("name"));
    db.def("setAAKitName", &db_set_aakit_name, vex::py::arg("name"));
    db.def("setFreq", &db_set_freq, vex::py::arg("freq"));
    db.def("cleanQueryCache", &db_clean_query_cache);
    db.def("query", &db_query, vex::py::arg("key") = "", vex::py::arg("category") = "GENERAL",
           vex::py::arg("applySetting") = true);
    db.finish();
}

}  // namespace vex::tables
