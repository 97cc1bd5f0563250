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
        <translation>اسم المستخدم أو كلمة المرور غير صحيحة. يرجى المحاولة مرة أخرى.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>شروط الاستخدام</translation>
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
