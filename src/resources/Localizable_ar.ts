<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ar">
<context>
    <name>Localizable</name>
    <message>
        <source>OK_BUTTON</source>
        <translation>حسنًا</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>حسنًا</translation>
    </message>
    <message>
        <source>PUBLISH</source>
        <translation>نشر</translation>
    </message>
    <message>
        <source>CANCEL</source>
        <translation>إلغاء</translation>
    </message>
    <message>
        <source>PUBLISH_VIDEO</source>
        <translation>نشر الفيديو</translation>
    </message>
    <message>
        <source>TITLE</source>
        <translation>العنوان</translation>
    </message>
    <message>
        <source>DESCRIPTION</source>
        <translation>الوصف</translation>
    </message>
    <message>
        <source>CATEGORY</source>
        <translation>الفئة</translation>
    </message>
    <message>
        <source>TAGS</source>
        <translation>الوسوم</translation>
    </message>
    <message>
        <source>NEW_TAG</source>
        <translation>وسم جديد</translation>
    </message>
    <message>
        <source>HD</source>
        <translation>عالي الدقة</translation>
    </message>
    <message>
        <source>STANDARD_DEFINITION</source>
        <translation>عادي</translation>
    </message>
    <message>
        <source>SIZE_FORMAT_PARENS</source>
        <translation>(%1)</translation>
    </message>
    <message>
        <source>SIZE_OR_MORE_FORMAT_PARENS</source>
        <translation>(%1 أو أكثر)</translation>
    </message>
    <message>
        <source>ACCOUNT_NAME_FORMAT</source>
        <translation>تم تسجيل الدخول باسم %1</translation>
    </message>
    <message>
        <source>ACCOUNT_BLANK</source>
        <translation>لم يتم تسجيل الدخول</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_TITLE</source>
        <translation>فشل تسجيل الدخول</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_BODY</source>
        <translation>تعذّر تسجيل الدخول. يرجى التحقق من اسم المستخدم وكلمة المرور والاتصال، ثم المحاولة مرة أخرى.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>شروط الاستخدام</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN_TITLE</source>
        <translation>تسجيل الدخول إلى %1</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_SIGN_IN_MESSAGE</source>
        <translation>تسجّل الدخول في صفحة الخدمة نفسها في متصفح الويب.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_SIGN_IN_MESSAGE</source>
        <translation>تسجّل الدخول على جهاز آخر، مثل هاتفك، برمز يظهر لاحقًا.</translation>
    </message>
    <message>
        <source>OAUTH2_PASSWORD_SIGN_IN_MESSAGE</source>
        <translation>أدخل اسم المستخدم وكلمة المرور.</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE_IN_BROWSER</source>
        <translation>المتابعة في المتصفح</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE</source>
        <translation>متابعة</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN</source>
        <translation>تسجيل الدخول</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_MESSAGE</source>
        <translation>على جهاز آخر، افتح %1 وأدخل الرمز %2، أو امسح رمز QR.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_QR_DESCRIPTION</source>
        <translation>رمز QR لعنوان تسجيل الدخول</translation>
    </message>
    <message>
        <source>OAUTH2_SECOND_FACTOR_MESSAGE</source>
        <translation>أدخل الرمز من تطبيق المصادقة.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_PASSWORD</source>
        <translation>لم تقبل الخدمة اسم المستخدم وكلمة المرور هذين.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_SECOND_FACTOR</source>
        <translation>لم تقبل الخدمة الرمز من تطبيق المصادقة.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_NO_SECOND_FACTOR</source>
        <translation>توقف تسجيل الدخول لأنه لم يُدخَل أي رمز من تطبيق المصادقة.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_REFUSED</source>
        <translation>رفضت الخدمة تسجيل الدخول.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_UNREACHABLE</source>
        <translation>تعذّر الوصول إلى الخدمة أو لم تُجب. يرجى التحقق من الاتصال.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_TIMED_OUT</source>
        <translation>لم يكتمل تسجيل الدخول الأخير في الوقت المحدد.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_CANCELLED</source>
        <translation>أُلغي تسجيل الدخول الأخير.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_EXPIRED</source>
        <translation>أنهت الخدمة تسجيل دخولك. يرجى تسجيل الدخول مرة أخرى.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_OTHER</source>
        <translation>لم ينجح تسجيل الدخول الأخير.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_DONE</source>
        <translation>يمكنك العودة إلى التطبيق.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_FAILED</source>
        <translation>لم ينجح تسجيل الدخول. يمكنك العودة إلى التطبيق.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_EXPIRED</source>
        <translation>انتهى تسجيل الدخول هذا بالفعل. يمكنك العودة إلى التطبيق.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SIGN_IN_AGAIN</source>
        <translation>لم تعد الخدمة تقبل تسجيل دخولك. يرجى تسجيل الدخول مرة أخرى والنشر من جديد.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_QUOTA_OR_RATE_LIMIT</source>
        <translation>بلغت الخدمة حدًّا لحسابك. يرجى المحاولة لاحقًا.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_FIELD</source>
        <translation>لم تقبل الخدمة الحقل «%1». يرجى تصحيحه والنشر من جديد.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_REQUEST</source>
        <translation>لم تقبل الخدمة ما أُرسل. يرجى التحقق من العنوان والوصف والوسوم، ثم النشر من جديد.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_TOO_LARGE</source>
        <translation>الفيديو أكبر مما تقبله الخدمة. يرجى اختيار مقطع أقصر أو جودة أقل.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_CHANGED_OR_UNREADABLE</source>
        <translation>تغيّر الفيديو أو لم تعد قراءته ممكنة، لذلك لم يُنشر.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_NETWORK</source>
        <translation>انقطع الاتصال بالخدمة. يرجى التحقق من الشبكة والمحاولة مرة أخرى.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SERVICE_FAILURE</source>
        <translation>تعذّر على الخدمة استلام الفيديو الآن. يرجى المحاولة لاحقًا.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_CANCELLED</source>
        <translation>أُلغي النشر.</translation>
    </message>
    <message>
        <source>USER_NAME</source>
        <translation>اسم المستخدم</translation>
    </message>
    <message>
        <source>PASSWORD</source>
        <translation>كلمة المرور</translation>
    </message>
    <message>
        <source>KEY_SHIFT</source>
        <translation>تبديل</translation>
    </message>
    <message>
        <source>KEY_DELETE</source>
        <translation>حذف</translation>
    </message>
    <message>
        <source>KEY_COMMA</source>
        <translation>فاصلة</translation>
    </message>
    <message>
        <source>KEY_SPACE</source>
        <translation>مسافة</translation>
    </message>
    <message>
        <source>KEY_RETURN</source>
        <translation>إدخال</translation>
    </message>
    <message>
        <source>KEY_SPLIT</source>
        <translation>تقسيم لوحة المفاتيح</translation>
    </message>
    <message>
        <source>REQUIRES_WIFI</source>
        <translation>يتطلب Wi-Fi</translation>
    </message>
    <message>
        <source>LIST_POSITION_FORMAT</source>
        <translation>%1 من %2</translation>
    </message>
</context>
</TS>
