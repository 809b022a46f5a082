// Every text of the console, in English and Chinese. {name} stands for a value; {n|object|objects} for a number with its word.
import { number } from "./pure/format.js";

export const languages = { en: "English", zh: "中文" };

export const texts = {
  "app.title": ["Tansy", "Tansy"],
  "app.tagline": ["Your own cloud storage", "您自己的云存储"],
  "app.skip": ["Skip to content", "跳到内容"],
  "app.navigation": ["Pages", "页面"],
  "app.language": ["Language: {name}", "语言：{name}"],
  "app.theme": ["Colours: {name}", "配色：{name}"],
  "app.theme.auto": ["as the system", "跟随系统"],
  "app.theme.light": ["light", "浅色"],
  "app.theme.dark": ["dark", "深色"],
  "app.signOut": ["Sign out", "退出登录"],
  "app.shortcuts": ["Keyboard shortcuts", "键盘快捷键"],
  "app.menu": ["Menu", "菜单"],
  "app.loading": ["Loading …", "正在加载……"],
  "app.retry": ["Try again", "重试"],
  "app.close": ["Close", "关闭"],
  "app.cancel": ["Cancel", "取消"],
  "app.notice": ["Notices", "通知"],
  "app.dismiss": ["Dismiss notice", "关闭通知"],

  "page.overview": ["Overview", "概览"],
  "page.objects": ["Files", "文件"],
  "page.buckets": ["Buckets", "存储桶"],
  "page.unfinished": ["Unfinished uploads", "未完成的上传"],
  "page.requests": ["Running requests", "正在处理的请求"],
  "page.check": ["Check", "检查"],
  "page.log": ["Log", "日志"],
  "page.settings": ["Settings", "设置"],

  "signIn.key": ["Access key", "访问密钥"],
  "signIn.secret": ["Secret key", "私有密钥"],
  "signIn.show": ["Show the secret key", "显示私有密钥"],
  "signIn.hide": ["Hide the secret key", "隐藏私有密钥"],
  "signIn.button": ["Sign in", "登录"],
  "signIn.busy": ["Signing in …", "正在登录……"],
  "signIn.where": [
    "Both keys are in the file tansyd.toml of the data folder. The secret key does not leave this browser.",
    "两个密钥都在数据文件夹的 tansyd.toml 文件中。私有密钥不会离开此浏览器。",
  ],
  "signIn.wrong": [
    "The keys are not right. Copy both of them from tansyd.toml, without blanks.",
    "密钥不正确。请从 tansyd.toml 中复制两个密钥，不要带空格。",
  ],
  "signIn.tooMany": ["There were too many tries. Wait {wait}, then try again.", "尝试次数过多。请等待 {wait} 后重试。"],
  "signIn.insecure": [
    "Signing in needs HTTPS, or the address 127.0.0.1 on the machine of the server. Open this page by one of them.",
    "登录需要 HTTPS，或在服务器本机使用地址 127.0.0.1。请用其中一种方式打开本页面。",
  ],
  "signIn.ended": ["The session has ended. Sign in again to go on.", "会话已结束。请重新登录以继续。"],

  "error.offline": [
    "The server did not answer. Look whether tansyd runs, and try again.",
    "服务器没有响应。请检查 tansyd 是否在运行，然后重试。",
  ],
  "error.storageOffline": [
    "The storage port of the server did not answer. Look whether it is reachable from this machine, and try again.",
    "服务器的存储端口没有响应。请检查此计算机能否访问该端口，然后重试。",
  ],
  "error.status": [
    "The server answered {status}. Try again; the log of the server says more.",
    "服务器返回 {status}。请重试；服务器日志中有更多信息。",
  ],
  "error.AccessDenied": [
    "The server refused this. The link may have ended: try again. Otherwise your key may not do it.",
    "服务器拒绝了此操作。链接可能已过期：请重试。否则您的密钥没有此权限。",
  ],
  "error.NoSuchBucket": ["This bucket is gone. Go back to the list of buckets.", "此存储桶已不存在。请返回存储桶列表。"],
  "error.NoSuchKey": ["This file is gone. Reload the list.", "此文件已不存在。请重新加载列表。"],
  "error.BucketNotEmpty": ["This bucket still holds files. Delete them first.", "此存储桶中还有文件。请先删除它们。"],
  "error.NotEnoughSpace": [
    "The server has no room left. Delete what you do not need, or ask whoever runs it for more space.",
    "服务器空间不足。请删除不需要的内容，或请管理员增加空间。",
  ],
  "error.EntityTooLarge": ["A file may have at most 4 GiB. Split it, or compress it.", "文件最大为 4 GiB。请拆分或压缩。"],
  "error.NoSuchUpload": ["This upload has ended meanwhile. Start it again.", "此上传已结束。请重新开始。"],
  "error.file": ["The file cannot be read any more. Choose it again.", "无法再读取该文件。请重新选择。"],
  "error.message": ["{message}", "{message}"],

  "overview.well": ["All is well", "一切正常"],
  "overview.wellSince": ["Running for {time} without anything to report.", "已运行 {time}，没有需要报告的问题。"],
  "overview.troubles": ["{n|thing needs|things need} your attention", "有 {n} 项需要注意"],
  "overview.requests": ["Requests", "请求"],
  "overview.perSecond": ["{value}/s", "{value}/秒"],
  "overview.errors": ["Errors", "错误"],
  "overview.latency": ["Time to answer", "响应时间"],
  "overview.median": ["half within", "50% 在"],
  "overview.slow": ["99 of 100 within", "99% 在"],
  "overview.traffic": ["Traffic", "流量"],
  "overview.in": ["received", "接收"],
  "overview.out": ["sent", "发送"],
  "overview.memory": ["Memory", "内存"],
  "overview.memoryOf": ["{used} of {limit}", "{used} / {limit}"],
  "overview.space": ["Space on disk", "磁盘空间"],
  "overview.free": ["{free} free of {total}", "可用 {free}，共 {total}"],
  "overview.stored": ["Stored", "已存储"],
  "overview.objects": ["{n|file|files} in {buckets}", "{buckets}中共 {n} 个文件"],
  "overview.buckets": ["{n|bucket|buckets}", "{n} 个存储桶"],
  "overview.connections": ["Connections", "连接"],
  "overview.busy": ["{busy} busy, at most {limit}", "{busy} 个忙碌，上限 {limit}"],
  "overview.uploads": ["{n|upload|uploads} under way", "{n} 个上传进行中"],
  "overview.uptime": ["Running for", "运行时间"],
  "overview.chart": ["Chart of the last minutes: {name}. Now {now}.", "最近几分钟的图表：{name}。当前 {now}。"],

  "trouble.part": ["The part “{part}” is in trouble: {words}.", "组件“{part}”出现问题：{words}。"],
  "trouble.partOnly": ["The part “{part}” is in trouble.", "组件“{part}”出现问题。"],
  "trouble.notReady": [
    "The server is not ready. If it has just started, wait a minute; otherwise look at its log.",
    "服务器尚未就绪。如果刚启动，请等一分钟；否则请查看日志。",
  ],
  "trouble.spaceGone": [
    "The disk is nearly full: {free} are left. New files will soon be refused. Delete files or add space now.",
    "磁盘几乎已满：仅剩 {free}。新文件很快会被拒绝。请立即删除文件或增加空间。",
  ],
  "trouble.spaceLow": [
    "Less than a tenth of the disk is free ({free}). Plan for more space.",
    "磁盘可用空间不足十分之一（{free}）。请计划扩容。",
  ],
  "trouble.certificateEnded": [
    "The HTTPS certificate has ended. Browsers and programs refuse it: replace it now.",
    "HTTPS 证书已过期。浏览器和程序会拒绝它：请立即更换。",
  ],
  "trouble.certificateEnds": [
    "The HTTPS certificate ends in {days|day|days}. Replace it before that.",
    "HTTPS 证书将在 {days} 天后过期。请在此之前更换。",
  ],
  "trouble.memory": [
    "More than nine tenths of the memory limit are in use. Large requests may have to wait; consider a higher --memory-limit.",
    "内存使用已超过上限的九成。大请求可能需要等待；请考虑提高 --memory-limit。",
  ],
  "trouble.connections": [
    "{open} of at most {limit} connections are open. New clients may soon be refused.",
    "已打开 {open} 个连接，上限 {limit}。新客户端可能很快被拒绝。",
  ],
  "trouble.tasks": [
    "All workers are busy. Look at the running requests for those that take long.",
    "所有工作线程都在忙。请在“正在处理的请求”中查看耗时较长的请求。",
  ],
  "trouble.errors": ["{share} of the latest requests failed. The log says why.", "最近的请求中有 {share} 失败。原因见日志。"],

  "buckets.new": ["New bucket", "新建存储桶"],
  "buckets.name": ["Name of the bucket", "存储桶名称"],
  "buckets.make": ["Make bucket", "创建"],
  "buckets.made": ["The bucket “{name}” is there.", "存储桶“{name}”已创建。"],
  "buckets.taken": ["A bucket of this name is there already. Choose another name.", "已有同名存储桶。请换一个名称。"],
  "buckets.empty": ["There is no bucket yet", "还没有存储桶"],
  "buckets.emptyHint": [
    "A bucket holds your files, like a drive. Make the first one to begin.",
    "存储桶像磁盘一样存放您的文件。请先创建一个。",
  ],
  "buckets.column.name": ["Name", "名称"],
  "buckets.column.objects": ["Files", "文件数"],
  "buckets.column.bytes": ["Size", "大小"],
  "buckets.column.created": ["Made", "创建时间"],
  "buckets.column.actions": ["Actions", "操作"],
  "buckets.remove": ["Remove {name}", "移除 {name}"],
  "buckets.removeTitle": ["Remove this bucket?", "移除此存储桶？"],
  "buckets.removeText": [
    "The bucket “{name}” will be removed. This works only when it is empty.",
    "将移除存储桶“{name}”。只有空桶才能移除。",
  ],
  "buckets.removeButton": ["Remove bucket", "移除存储桶"],
  "buckets.removed": ["The bucket “{name}” is removed.", "存储桶“{name}”已移除。"],
  "bucket.rules": [
    "3 to 63 small letters, digits, dots and hyphens; a letter or a digit at both ends.",
    "3 到 63 个小写字母、数字、点和连字符；首尾必须是字母或数字。",
  ],

  "objects.choose": ["Choose a bucket", "选择存储桶"],
  "objects.path": ["Folder", "文件夹"],
  "objects.search": ["Names that begin with …", "名称开头为……"],
  "objects.upload": ["Upload", "上传"],
  "objects.uploadFiles": ["Upload files", "上传文件"],
  "objects.uploadFolder": ["Upload a folder", "上传文件夹"],
  "objects.newFolder": ["New folder", "新建文件夹"],
  "objects.folderName": ["Name of the folder", "文件夹名称"],
  "objects.folderHint": ["The folder is kept from its first file on.", "文件夹在放入第一个文件后才会保留。"],
  "objects.folderSlash": ["A name cannot be empty or hold a slash.", "名称不能为空，也不能包含斜杠。"],
  "objects.openFolder": ["Open folder", "打开文件夹"],
  "objects.reload": ["Reload the list", "重新加载列表"],
  "objects.list": ["Files in {place}", "{place} 中的文件"],
  "objects.pick": ["Select", "选择"],
  "objects.name": ["Name", "名称"],
  "objects.size": ["Size", "大小"],
  "objects.changed": ["Changed", "修改时间"],
  "objects.folder": ["Folder", "文件夹"],
  "objects.count": ["{n|entry|entries}", "{n} 项"],
  "objects.countMore": ["{n|entry|entries} so far, more as you scroll", "已加载 {n} 项，滚动可加载更多"],
  "objects.empty": ["Nothing here yet", "这里还没有内容"],
  "objects.emptyHint": ["Drop files or folders here, or press “Upload”.", "将文件或文件夹拖到这里，或点击“上传”。"],
  "objects.emptyReadOnly": [
    "Your key may read only. Files show here when others have stored them.",
    "您的密钥只能读取。其他人存储文件后会显示在这里。",
  ],
  "objects.nothingFound": ["No name begins with “{prefix}”", "没有名称以“{prefix}”开头"],
  "objects.nothingFoundHint": ["Capital and small letters count. Try a shorter beginning.", "区分大小写。请尝试更短的开头。"],
  "objects.drop": ["Drop to upload to {place}", "松开即可上传到 {place}"],
  "objects.selected": ["{n|entry|entries} selected", "已选择 {n} 项"],
  "objects.clear": ["Clear selection", "取消选择"],
  "objects.download": ["Download", "下载"],
  "objects.share": ["Share", "分享"],
  "objects.rename": ["Rename", "重命名"],
  "objects.delete": ["Delete", "删除"],
  "objects.deleteTitle": ["Delete {n|entry|entries}?", "删除 {n} 项？"],
  "objects.deleteText": [
    "{names} will be deleted, with everything in the folders among them. This cannot be undone here.",
    "将删除 {names}，包括其中文件夹里的全部内容。此操作无法在这里撤销。",
  ],
  "objects.andMore": ["{names} and {n} more", "{names} 等另外 {n} 项"],
  "objects.deleteButton": ["Delete", "删除"],
  "objects.deleting": ["Deleting: {n|file|files} so far", "正在删除：已删除 {n} 个文件"],
  "objects.deleted": ["{n|file is|files are} deleted.", "已删除 {n} 个文件。"],
  "objects.renameTitle": ["Rename", "重命名"],
  "objects.renameLabel": ["New name", "新名称"],
  "objects.renameHint": ["A slash moves the file into a folder.", "斜杠会把文件移动到文件夹中。"],
  "objects.renameButton": ["Rename", "重命名"],
  "objects.renamed": ["The file is now called “{name}”.", "文件已重命名为“{name}”。"],
  "objects.nameTaken": ["A file of this name is there already. Choose another name.", "已有同名文件。请换一个名称。"],
  "objects.noFolders": [
    "Folders have no download of their own. Select the files in them.",
    "文件夹不能直接下载。请选择其中的文件。",
  ],
  "name.empty": ["A name is needed.", "需要名称。"],
  "name.long": ["The name is too long: with its folders it may have 1,024 bytes.", "名称过长：连同文件夹最多 1,024 字节。"],
  "name.broken": [
    "The name holds half a character, which cannot be stored. Rename the file first.",
    "名称中有不完整的字符，无法存储。请先重命名文件。",
  ],

  "preview.size": ["Size", "大小"],
  "preview.changed": ["Changed", "修改时间"],
  "preview.key": ["Whole name", "完整名称"],
  "preview.none": ["There is no preview for this kind of file.", "此类文件没有预览。"],
  "preview.failed": [
    "This file cannot be shown. Download it to open it with a program of yours.",
    "无法显示此文件。请下载后用其他程序打开。",
  ],
  "preview.cut": ["The first 256 KiB are shown.", "仅显示前 256 KiB。"],
  "preview.previous": ["Previous file", "上一个文件"],
  "preview.next": ["Next file", "下一个文件"],
  "preview.of": ["Preview of {name}", "{name} 的预览"],

  "share.title": ["Share a link", "分享链接"],
  "share.text": [
    "Whoever has this link can read the file, without keys, until it ends. It cannot be taken back before that.",
    "任何持有此链接的人在到期前无需密钥即可读取文件。到期前无法收回。",
  ],
  "share.for": ["The link ends after", "链接有效期"],
  "share.hour": ["1 hour", "1 小时"],
  "share.day": ["1 day", "1 天"],
  "share.week": ["7 days", "7 天"],
  "share.ends": ["It ends on {time}.", "到期时间：{time}。"],
  "share.link": ["Link", "链接"],
  "share.copy": ["Copy link", "复制链接"],
  "share.copied": ["The link is copied.", "链接已复制。"],
  "share.copyByHand": [
    "Select the link and copy it: this browser does not let the page do it.",
    "请选中链接手动复制：此浏览器不允许页面复制。",
  ],
  "share.qr": ["QR code of the link, to open it with a phone", "链接的二维码，用手机打开"],
  "share.loopback": [
    "This link opens on this machine only, because you opened the console at {host}. Open the console at the server's own name to share with others.",
    "此链接只能在本机打开，因为您是通过 {host} 打开控制台的。请用服务器的名称打开控制台以便与他人分享。",
  ],

  "uploads.title": ["Uploads", "上传"],
  "uploads.summary": ["{done} of {all} done", "已完成 {done} / {all}"],
  "uploads.speed": ["{speed}/s", "{speed}/秒"],
  "uploads.pauseAll": ["Pause", "暂停"],
  "uploads.resumeAll": ["Go on", "继续"],
  "uploads.clear": ["Clear the list", "清空列表"],
  "uploads.hide": ["Make the list small", "收起列表"],
  "uploads.showList": ["Show the list", "展开列表"],
  "uploads.pause": ["Pause {name}", "暂停 {name}"],
  "uploads.resume": ["Go on with {name}", "继续 {name}"],
  "uploads.retry": ["Try {name} again", "重试 {name}"],
  "uploads.remove": ["Stop {name}", "停止 {name}"],
  "uploads.progress": ["Progress of {name}", "{name} 的进度"],
  "uploads.waiting": ["waiting", "等待中"],
  "uploads.running": ["{sent} of {size}", "{sent} / {size}"],
  "uploads.again": ["the server does not answer; trying again", "服务器没有响应；正在重试"],
  "uploads.paused": ["paused at {sent} of {size}", "已暂停：{sent} / {size}"],
  "uploads.done": ["done", "完成"],
  "uploads.skipped": ["left as it was", "保持原样"],
  "uploads.lost": [
    "{n|upload was|uploads were} interrupted. Choose the same files or folder again: what was sent already is kept.",
    "有 {n} 个上传被中断。请重新选择相同的文件或文件夹：已上传的部分会保留。",
  ],
  "uploads.chooseFiles": ["Choose the files", "选择文件"],
  "uploads.chooseFolder": ["Choose the folder", "选择文件夹"],
  "uploads.forget": ["Forget them", "放弃"],
  "uploads.otherFile": [
    "None of these files is one of the interrupted ones: name, size and time must be the same.",
    "这些文件都不是被中断的文件：名称、大小和时间必须相同。",
  ],
  "uploads.more": ["and {n} more", "以及另外 {n} 项"],
  "uploads.finished": ["{n|file is|files are} uploaded.", "已上传 {n} 个文件。"],
  "uploads.existsTitle": ["There are files of the same names", "存在同名文件"],
  "uploads.existsText": [
    "{n|file is|files are} on the server already, for example “{name}”. Replace what is there, or keep both?",
    "服务器上已有 {n} 个同名文件，例如“{name}”。如何处理？",
  ],
  "uploads.replace": ["Replace", "替换"],
  "uploads.keepBoth": ["Keep both", "两者都保留"],
  "uploads.skip": ["Skip", "跳过"],
  "uploads.tooLarge": ["A file may have at most 4 GiB. Split it, or compress it.", "文件最大为 4 GiB。请拆分或压缩。"],

  "unfinished.empty": ["No upload is unfinished", "没有未完成的上传"],
  "unfinished.emptyHint": [
    "Large files go up in parts. What was begun and not completed shows here, and can be given back.",
    "大文件分块上传。已开始但未完成的上传会显示在这里，并可释放空间。",
  ],
  "unfinished.bucket": ["Bucket", "存储桶"],
  "unfinished.key": ["Name", "名称"],
  "unfinished.begun": ["Begun", "开始时间"],
  "unfinished.actions": ["Actions", "操作"],
  "unfinished.abort": ["Abort the upload of {name}", "中止 {name} 的上传"],
  "unfinished.abortTitle": ["Abort this upload?", "中止此上传？"],
  "unfinished.abortText": [
    "What was sent of “{name}” is given back. Whoever uploads it has to start again.",
    "“{name}”已上传的部分会被释放，上传者需要重新开始。",
  ],
  "unfinished.abortButton": ["Abort upload", "中止上传"],
  "unfinished.aborted": ["The upload is aborted.", "上传已中止。"],

  "requests.empty": ["Nothing runs right now", "当前没有请求"],
  "requests.emptyHint": [
    "Requests show here while the server works on them, the oldest first.",
    "服务器处理请求时会显示在这里，最早的在前。",
  ],
  "requests.request": ["Request", "请求"],
  "requests.operation": ["Operation", "操作"],
  "requests.phase": ["Phase", "阶段"],
  "requests.peer": ["From", "来源"],
  "requests.age": ["For", "已用时"],
  "requests.live": ["Renewed every second", "每秒更新"],

  "check.start": ["Check now", "立即检查"],
  "check.never": ["Nothing was checked since the start", "启动以来尚未检查"],
  "check.hint": [
    "A check compares the list of files with the stored bytes, while the server goes on. It changes nothing.",
    "检查会在服务器运行时比较文件列表与存储的字节，不会更改任何内容。",
  ],
  "check.running": ["Checking …", "正在检查……"],
  "check.lookedAt": ["{n|entry|entries} looked at so far", "已检查 {n} 项"],
  "check.result.well": ["All files are whole", "所有文件完好"],
  "check.result.warn": ["{n|finding|findings}", "发现 {n} 个问题"],
  "check.result.bad": ["The check could not be done", "无法完成检查"],
  "check.when": ["Ended on {time}, after {took}.", "结束于 {time}，用时 {took}。"],
  "check.repair": [
    "Bytes that nothing refers to are freed by “tansyd --check --repair”. What is missing comes back from a backup only.",
    "“tansyd --check --repair”可释放无引用的字节。缺失的内容只能从备份恢复。",
  ],
  "check.findings": ["What the check found", "检查结果"],
  "check.more": ["and {count} more", "以及另外 {count} 项"],

  "log.filter": ["Lines that contain …", "包含……的行"],
  "log.follow": ["Follow new lines", "跟随新行"],
  "log.empty": ["The log has no line yet", "日志还没有内容"],
  "log.emptyHint": [
    "Lines show here as the server writes them. --log-level 2 makes it write more.",
    "服务器写入的日志行会显示在这里。--log-level 2 会写入更多。",
  ],
  "log.noMatch": ["No line contains this text", "没有包含此文本的行"],
  "log.noMatchHint": ["Clear the filter to see all lines.", "清除筛选以查看所有行。"],
  "log.lines": ["Lines of the log", "日志内容"],

  "settings.name": ["Setting", "设置项"],
  "settings.value": ["In force", "当前值"],
  "settings.hint": [
    "These are the settings that the server runs with. Change them in tansyd.toml or on the command line.",
    "这是服务器当前的设置。请在 tansyd.toml 或命令行中修改。",
  ],
  "settings.filter": ["Find a setting", "查找设置"],
  "settings.none": ["none", "无"],

  "keys.title": ["Keyboard shortcuts", "键盘快捷键"],
  "keys.search": ["search", "搜索"],
  "keys.help": ["show this list", "显示此列表"],
  "keys.move": ["move in the list", "在列表中移动"],
  "keys.open": ["open the file or the folder", "打开文件或文件夹"],
  "keys.up": ["to the folder above", "返回上级文件夹"],
  "keys.select": ["select; with Shift and the arrows several", "选择；Shift 加方向键可多选"],
  "keys.all": ["select all that are loaded", "选择所有已加载项"],
  "keys.delete": ["delete what is selected", "删除所选"],
  "keys.rename": ["rename", "重命名"],
  "keys.upload": ["upload files", "上传文件"],
  "keys.pages": ["go to a page, by its number in the menu", "按菜单序号转到页面"],
};

let current = "en";

export function setLanguage(language) {
  current = language in languages ? language : "en";
}

export function language() {
  return current;
}

// For Intl: the reader's own variant of the language where the browser names one.
export function locale() {
  const own = (globalThis.navigator?.languages ?? []).find((name) => name.split("-")[0] === current);
  return own ?? (current === "zh" ? "zh-CN" : "en-GB");
}

export function t(name, values = {}) {
  const text = texts[name]?.[current === "zh" ? 1 : 0] ?? name;
  return text.replace(/\{(\w+)(?:\|([^|}]*)\|([^}]*))?\}/g, (_, value, one, many) => {
    const given = values[value];
    const written = typeof given === "number" ? number(given, locale()) : String(given ?? "");
    return one === undefined ? written : `${written} ${given === 1 ? one : many}`;
  });
}
