// The few things the pages do in the browser: show the fields of the chosen beam type,
// confirm before deleting, and follow a kit chosen from the list.
document.addEventListener("DOMContentLoaded", function () {
  var type = document.getElementById("beam_type");
  function showFields() {
    document.querySelectorAll("fieldset[data-type]").forEach(function (set) {
      set.hidden = set.getAttribute("data-type") !== type.value;
    });
  }
  if (type) { type.addEventListener("change", showFields); showFields(); }
  document.querySelectorAll("form[data-confirm]").forEach(function (form) {
    form.addEventListener("submit", function (event) {
      if (!window.confirm(form.getAttribute("data-confirm"))) { event.preventDefault(); }
    });
  });
  document.querySelectorAll("select[data-autosubmit]").forEach(function (select) {
    select.addEventListener("change", function () { select.form.submit(); });
  });
});
