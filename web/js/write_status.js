// Turns the result codes that "writeSettings" reports as "writeStatus" into
// sentences. The module keeps only the first failing setter's code, so one
// sentence is all there is to say; the code stays in brackets so that a
// person can quote it when asking for help.

const DIRECTORY_CODES = new Map([
  [-14136, "An access group could not be changed: a group or member was not found in the directory"],
  [-14133, "An access group could not be changed: the directory refused a name"],
  [-14120, "An access group could not be changed: the directory could not write it"],
  [-14002, "The access groups could not be changed: the local directory is not available"],
]);

const CODES = new Map([
  [1, "A switch or the time server configuration could not be written"],
  [100010, "The computer name was refused: use 1 to 63 characters, none of them = * @ or :"],
  [100011, "The local host name could not be set"],
  [100012, "The computer name could not be set"],
  [100024, "The name was written, but the system did not confirm the change in time"],
  [100020, "The time zone could not be changed: the old zone link could not be removed"],
  [100021, "The time zone could not be changed: this server has no zone file for that city"],
  [100022, "The time zone could not be changed: the new zone link could not be made"],
  [100023, "The clock or the time zone could not be set"],
  [100026, "SSH could not be turned on"],
  [100027, "SSH could not be turned off"],
  [100029, "Remote desktop could not be turned on"],
  [100030, "Remote desktop could not be turned off"],
  [100031, "The file sync agent could not be turned on"],
  [100032, "The file sync agent could not be turned off"],
  ...DIRECTORY_CODES,
]);

// Directory statuses are negative 32-bit numbers; the reply carries them
// unsigned.
function signed32(code) {
  return code >= 2 ** 31 && code < 2 ** 32 ? code - 2 ** 32 : code;
}

// The sentence for a writeStatus value; "Saved." for 0. Unknown codes and
// values that are not numbers still give a sentence, never an exception.
export function writeStatusText(status) {
  if (status === 0) return "Saved.";
  if (typeof status !== "number" || !Number.isFinite(status)) {
    return "The server did not say whether the settings were saved.";
  }
  const code = signed32(status);
  const words = CODES.get(code);
  if (words) return `${words} (${code}).`;
  return `Some settings could not be saved (code ${code}).`;
}
