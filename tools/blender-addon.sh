#!/usr/bin/env bash
# The Blender add-on: packs blender/kavrin_blender into a zip that Blender's preferences install
# (Edit > Preferences > Add-ons > Install...), then installs and enables it for the current user.
#
#   bash tools/blender-addon.sh              the zip (build/kavrin_blender-VERSION.zip), installed
#                                            and enabled in the current user's Blender preferences
#   bash tools/blender-addon.sh --zip-only   only the zip
#
# BLENDER names the Blender to install into (default: blender on the PATH); Blender's own
# BLENDER_USER_SCRIPTS and BLENDER_USER_CONFIG, when set, choose the user folders it uses. The
# add-on needs the kavrin Python package in that Blender's Python (bash tools/setup.sh installs it
# for Debian's Blender; see docs/blender.md for others).
set -euo pipefail
cd "$(dirname "$0")/.."
blender=${BLENDER:-blender}
mkdir -p build
zip=$(/usr/bin/python3 - <<'PY'
import ast, os, zipfile
source = "blender/kavrin_blender"
tree = ast.parse(open(os.path.join(source, "__init__.py")).read())
info = next(ast.literal_eval(node.value) for node in tree.body
            if isinstance(node, ast.Assign) and node.targets[0].id == "bl_info")
zip_path = "build/kavrin_blender-%s.zip" % ".".join(map(str, info["version"]))
temporary = zip_path + ".part"
with zipfile.ZipFile(temporary, "w", zipfile.ZIP_DEFLATED) as archive:
    for name in sorted(os.listdir(source)):
        if name.endswith(".py"):
            archive.write(os.path.join(source, name), "kavrin_blender/" + name)
os.replace(temporary, zip_path)
print(zip_path)
PY
)
echo "blender-addon: $zip"
[ "${1:-}" = "--zip-only" ] && exit 0

if ! command -v "$blender" >/dev/null; then
  echo "blender-addon: no $blender on the PATH (bash tools/install-deps.sh installs Debian's)" >&2
  exit 1
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# Installed, enabled and saved in the preferences; then a fresh Blender must list it as enabled.
if ! "$blender" -b --python-exit-code 1 --python-expr "
import addon_utils, bpy
bpy.ops.preferences.addon_install(filepath='$PWD/$zip', overwrite=True)
assert addon_utils.enable('kavrin_blender', default_set=True), 'the add-on does not enable'
bpy.ops.wm.save_userpref()
" >"$log" 2>&1 || ! "$blender" -b --python-expr "
import addon_utils
print('kavrin_blender:', 'listed' if 'kavrin_blender' in {m.__name__ for m in addon_utils.modules()} else 'missing',
      'enabled' if addon_utils.check('kavrin_blender')[1] else 'disabled')
" >>"$log" 2>&1 || ! grep -q "^kavrin_blender: listed enabled" "$log"; then
  cat "$log" >&2
  echo "blender-addon: installing the add-on into $blender failed" >&2
  exit 1
fi
echo "blender-addon: installed and enabled in $("$blender" --version | head -n 1) for $(id -un)"
